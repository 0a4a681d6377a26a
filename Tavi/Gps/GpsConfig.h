// Settings of the GPS receiver.
#pragma once

#include <cstdint>
#include <string>

namespace Tavi::Gps {

struct GpsConfig {
  /// Fixes per second.
  std::int32_t rate = 1;
  /// What the receiver's text comes from: a serial port, a pseudo-terminal, a FIFO, gpsd ("gpsd://HOST:PORT"), or a log
  /// to be replayed. Empty stands for the device library's own default.
  std::string path;
  /// Bits per second of a serial port.
  std::int32_t baud = 9600;
  /// Where the pipeline keeps going: this source missing for long is no reason to restart the unit.
  bool optional = false;
};

}  // namespace Tavi::Gps
