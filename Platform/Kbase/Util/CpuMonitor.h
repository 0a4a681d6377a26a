// How busy the machine is.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

namespace Kbase::Util {

/// Measures from the kernel's counters of processor time. Thread-safe.
class CpuMonitor {
 public:
  /// Busy share of all processors since the last call of anybody in this process, in percent, 0 to 100; the first call
  /// measures since start-up. The last result again when no time was counted in between, 0 where there are no counters.
  static int GetUsage();

  /// `statPath` has the form of /proc/stat (proc(5)).
  explicit CpuMonitor(std::string statPath = "/proc/stat");
  int Measure();

 private:
  struct Ticks {
    std::uint64_t total = 0;
    std::uint64_t idle = 0;
  };

  [[nodiscard]] bool Read(Ticks& ticks) const;

  const std::string m_statPath;
  std::mutex m_mutex;
  Ticks m_last;
  int m_usage = 0;
};

}  // namespace Kbase::Util
