// The time base that the simulated devices share.
#pragma once

#include <chrono>
#include <cstdint>

namespace Tavi::Simulator {

/// Nanoseconds since the car's departure by the steady clock. Tests put their own in its place. Thread-safe.
class DriveClock {
 public:
  virtual ~DriveClock() = default;
  [[nodiscard]] virtual std::int64_t NowNs() const {
    return std::chrono::nanoseconds(std::chrono::steady_clock::now() - m_departure).count();
  }

 private:
  std::chrono::steady_clock::time_point m_departure = std::chrono::steady_clock::now();
};

}  // namespace Tavi::Simulator
