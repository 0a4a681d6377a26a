// The service manager that started the process, if one did.
#pragma once

#include <chrono>
#include <string>

namespace Tavi::Recorder {

/// Tells systemd how the service is doing, by the protocol of sd_notify(3). Without a service manager nothing happens.
/// Thread-safe.
class ServiceManager {
 public:
  ServiceManager();

  /// Recording has begun.
  void TellReady() const;
  void TellStopping() const;
  /// One line for `systemctl status`.
  void TellStatus(const std::string& line) const;
  /// The process is alive; to be called at least every GetWatchdogPeriod. Does nothing when nobody watches.
  void Pet() const;
  /// Half the time after which the service manager restarts a silent process; zero when nobody watches.
  [[nodiscard]] std::chrono::microseconds GetWatchdogPeriod() const { return m_period; }

 private:
  std::chrono::microseconds m_period{0};
};

}  // namespace Tavi::Recorder
