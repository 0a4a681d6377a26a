// Settings of the accelerometer.
#pragma once

#include <cstdint>

namespace Tavi::Accel {

struct AccConfig {
  /// Sample blocks per second.
  std::int32_t rate = 10;
};

}  // namespace Tavi::Accel
