// Settings of the accelerometer.
#pragma once

#include <cstdint>

namespace Tavi::Accel {

struct AccConfig {
  /// Sample blocks per second.
  std::int32_t rate = 10;
  /// Where the pipeline keeps going: this source missing for long is no reason to restart the unit.
  bool optional = false;
};

}  // namespace Tavi::Accel
