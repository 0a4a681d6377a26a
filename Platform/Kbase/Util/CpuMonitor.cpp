// How busy the machine is.
#include "Kbase/Util/CpuMonitor.h"

#include <array>
#include <cinttypes>
#include <cstdio>
#include <memory>
#include <utility>

namespace Kbase::Util {

int CpuMonitor::GetUsage() {
  static CpuMonitor machine;
  return machine.Measure();
}

CpuMonitor::CpuMonitor(std::string statPath) : m_statPath(std::move(statPath)) {}

bool CpuMonitor::Read(Ticks& ticks) const {
  const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(m_statPath.c_str(), "re"), std::fclose);
  // user nice system idle iowait irq softirq steal; what follows (guest time) is part of user and nice already.
  std::array<std::uint64_t, 8> n{};
  constexpr const char* Line =
      "cpu %" SCNu64 " %" SCNu64 " %" SCNu64 " %" SCNu64 " %" SCNu64 " %" SCNu64 " %" SCNu64 " %" SCNu64;
  constexpr int OldestKernelsFields = 4;
  if (!file ||
      std::fscanf(file.get(), Line, &n[0], &n[1], &n[2], &n[3], &n[4], &n[5], &n[6], &n[7]) < OldestKernelsFields) {
    return false;
  }
  for (const auto value : n) ticks.total += value;
  ticks.idle = n[3] + n[4];
  return true;
}

int CpuMonitor::Measure() {
  Ticks now;
  if (!Read(now)) return 0;
  const std::lock_guard lock(m_mutex);
  // The kernel's count of idle time may run backwards a little (proc(5) on iowait).
  const std::uint64_t total = now.total > m_last.total ? now.total - m_last.total : 0;
  const std::uint64_t idle = now.idle > m_last.idle ? now.idle - m_last.idle : 0;
  if (total == 0) return m_usage;
  m_usage = idle >= total ? 0 : static_cast<int>((100 * (total - idle) + total / 2) / total);
  m_last = now;
  return m_usage;
}

}  // namespace Kbase::Util
