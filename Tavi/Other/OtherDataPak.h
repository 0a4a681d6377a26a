// One sample of the machine's state.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Tavi::Other {

/// What a metrics buffer wraps. Readers use the first two bytes; the other two are there because the buffers have
/// always been declared four bytes long.
struct OtherDataPak {
  /// Busy share of all processors in percent.
  std::uint8_t cpuUsage = 0;
  /// Degrees Celsius, the low eight bits; 0 when not known.
  std::uint8_t temperature = 0;
  std::uint8_t reserved[2] = {};
};
static_assert(sizeof(OtherDataPak) == 4 && offsetof(OtherDataPak, temperature) == 1);

}  // namespace Tavi::Other
