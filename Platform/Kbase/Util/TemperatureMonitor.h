// The unit's temperature, read from the kernel's thermal zone.
#pragma once

#include <optional>
#include <string>

#include "Kbase/Interfaces/IThread.h"

namespace Kbase::Util {

/// Samples the thermal zone once every five seconds on the thread "TEMPERATURE" while started. The unit's main process
/// starts it; without it, or on a machine without a thermal zone, the temperature is simply not known.
class TemperatureMonitor : public Interfaces::IThread {
 public:
  static TemperatureMonitor& GetInstance();

  static constexpr const char* DefaultZone = "/sys/class/thermal/thermal_zone0/temp";

  /// `zonePath` holds millidegrees Celsius as decimal text (kernel documentation, thermal sysfs API).
  explicit TemperatureMonitor(std::string zonePath = DefaultZone);
  ~TemperatureMonitor() override;

  /// Another zone; called before Start.
  void SetZone(const std::string& zonePath) { m_zonePath = zonePath; }

  /// The temperature in degrees Celsius that some monitor read last, empty when not known. Thread-safe, lock-free.
  static std::optional<int> Known();

  /// Known(), or 0 when not known.
  [[nodiscard]] int GetTemperature() const { return Known().value_or(0); }

 protected:
  void Run() override;
  void RunAfter() override;

 private:
  std::string m_zonePath;
};

}  // namespace Kbase::Util
