// The service manager that started the process, if one did.
#include "Recorder/Service/ServiceManager.h"

#include <systemd/sd-daemon.h>

#include <cstdint>

namespace Tavi::Recorder {

ServiceManager::ServiceManager() {
  std::uint64_t limitUs = 0;
  if (sd_watchdog_enabled(0, &limitUs) > 0) m_period = std::chrono::microseconds(limitUs / 2);
}

void ServiceManager::TellReady() const {
  sd_notify(0, "READY=1");
}

void ServiceManager::TellStopping() const {
  sd_notify(0, "STOPPING=1");
}

void ServiceManager::TellStatus(const std::string& line) const {
  sd_notify(0, ("STATUS=" + line).c_str());
}

void ServiceManager::Pet() const {
  if (m_period.count() > 0) sd_notify(0, "WATCHDOG=1");
}

}  // namespace Tavi::Recorder
