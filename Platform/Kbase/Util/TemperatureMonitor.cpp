// The unit's temperature, read from the kernel's thermal zone.
#include "Kbase/Util/TemperatureMonitor.h"

#include <atomic>
#include <chrono>
#include <fstream>
#include <limits>
#include <utility>

namespace Kbase::Util {
namespace {

constexpr int NotKnown = std::numeric_limits<int>::min();
constexpr std::chrono::seconds Period{5};
std::atomic<int> g_temperature{NotKnown};

int ReadDegrees(const std::string& path) {
  std::ifstream zone(path);
  int milliDegrees = 0;
  return zone >> milliDegrees ? milliDegrees / 1000 : NotKnown;
}

}  // namespace

TemperatureMonitor& TemperatureMonitor::GetInstance() {
  static TemperatureMonitor instance;
  return instance;
}

TemperatureMonitor::TemperatureMonitor(std::string zonePath)
    : IThread("TEMPERATURE", OnFailure::GoOn), m_zonePath(std::move(zonePath)) {}

TemperatureMonitor::~TemperatureMonitor() {
  Stop();
}

std::optional<int> TemperatureMonitor::Known() {
  const int degrees = g_temperature.load(std::memory_order_relaxed);
  return degrees == NotKnown ? std::nullopt : std::optional<int>(degrees);
}

void TemperatureMonitor::Run() {
  g_temperature.store(ReadDegrees(m_zonePath), std::memory_order_relaxed);
  WaitForCancel(Period);
}

void TemperatureMonitor::RunAfter() {
  g_temperature.store(NotKnown, std::memory_order_relaxed);
}

}  // namespace Kbase::Util
