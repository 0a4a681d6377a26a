// What a device says about its bus.
#pragma once

#include <cstdint>

namespace Kdevice::ACC {

class IError {
 public:
  virtual ~IError() = default;
  /// Transfers that failed so far, those of a bus that is not there included. Thread-safe.
  [[nodiscard]] virtual std::uint64_t GetErrorCount() const = 0;
};

}  // namespace Kdevice::ACC
