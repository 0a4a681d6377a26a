// Settings of the GPS receiver.
#pragma once

#include <cstdint>
#include <string>

namespace Tavi::Gps {

struct GpsConfig {
  /// Fixes per second.
  std::int32_t rate = 1;
  /// Device that the receiver's text comes from.
  std::string path;
};

}  // namespace Tavi::Gps
