// Looks at the sources once a second.
#pragma once

#include <algorithm>
#include <chrono>
#include <functional>
#include <utility>

#include "Kbase/Interfaces/IThread.h"
#include "Recorder/Health/Health.h"
#include "Recorder/Service/ServiceManager.h"

namespace Tavi::Recorder {

/// The thread "HEALTH", which also tells the service manager that the process is alive: it waits for no disk, and a
/// disk that does not answer must not end the recording. Ends with the object; borrows `serviceManager`.
class HealthThread final : public Kbase::Interfaces::IThread {
 public:
  /// `onLook` is called at each look, on the thread; it must wait for nothing.
  HealthThread(Health::GetRing getRing, const ServiceManager& serviceManager, std::function<void()> onLook)
      : IThread("HEALTH", OnFailure::GoOn),
        m_health(std::move(getRing)),
        m_serviceManager(serviceManager),
        m_onLook(std::move(onLook)) {}
  ~HealthThread() override { Stop(); }

  /// Thread-safe.
  [[nodiscard]] const Health& GetHealth() const { return m_health; }

 protected:
  void Run() override {
    m_health.Sample();
    m_onLook();
    m_serviceManager.Pet();
    const auto watchdog = std::chrono::duration_cast<Milliseconds>(m_serviceManager.GetWatchdogPeriod());
    WaitForCancel(watchdog.count() > 0 ? std::min(LookPeriod, watchdog) : LookPeriod);
  }

 private:
  static constexpr Milliseconds LookPeriod{1000};

  Health m_health;
  const ServiceManager& m_serviceManager;
  const std::function<void()> m_onLook;
};

}  // namespace Tavi::Recorder
