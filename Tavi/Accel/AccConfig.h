// Settings of the accelerometer.
#pragma once

#include <cstdint>

namespace Tavi::Accel {

struct AccConfig {
  /// Sample blocks per second.
  std::int32_t rate = 10;
  /// Where the pipeline keeps going: this source missing for long is no reason to restart the unit.
  bool optional = false;
  /// The chip's I2C bus ("/dev/i2c-1") and its 7-bit address, 0x1C or 0x1D by its pin SA0.
  std::int32_t bus = 1;
  std::int32_t address = 0x1C;
};

}  // namespace Tavi::Accel
