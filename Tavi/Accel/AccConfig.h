// Settings of the accelerometer.
#pragma once

#include <cstdint>
#include <string>

namespace Tavi::Accel {

struct AccConfig {
  /// Sample blocks per second.
  std::int32_t rate = 10;
  /// Where the pipeline keeps going: this source missing for long is no reason to restart the unit.
  bool optional = false;
  /// The chip's I2C bus ("/dev/i2c-1") and its 7-bit address, 0x1C or 0x1D by its pin SA0.
  std::int32_t bus = 1;
  std::int32_t address = 0x1C;
  /// An accelerometer that the kernel drives (IIO): "iio:device0", or its driver's name for it. Empty for the chip
  /// above.
  std::string device;
  /// The full scale in g: 2, 4 or 8.
  std::int32_t scale = 4;
  /// Which of the sensor's axes are the unit's first (upright, -1 g at rest), second (across) and third (along), "-"
  /// before one that points the other way (Kdevice::ACC::Mounting).
  std::string axes = "x,y,z";
  /// What the unit's second and third axes read while the vehicle stands level, in g, where the unit is mounted askew.
  float restSecondG = 0.0F;
  float restThirdG = 0.0F;
};

}  // namespace Tavi::Accel
