// Settings of the system metrics.
#pragma once

#include <cstdint>

namespace Tavi::Other {

struct OtherConfig {
  /// Samples per second as stated to the rest of the system; the sampling timer itself has a fixed period of 1000 ms.
  std::int32_t rate = 1;
};

}  // namespace Tavi::Other
