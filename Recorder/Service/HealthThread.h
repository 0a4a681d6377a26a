// Looks at the sources once a second.
#pragma once

#include <atomic>
#include <chrono>

#include "Kbase/Interfaces/IThread.h"
#include "Recorder/Health/Health.h"

namespace Tavi::Recorder {

/// The thread "HEALTH". Ends with the object.
class HealthThread final : public Kbase::Interfaces::IThread {
 public:
  explicit HealthThread(Health::GetRing getRing) : IThread("HEALTH"), m_health(std::move(getRing)) {}
  ~HealthThread() override { Stop(); }

  /// Thread-safe.
  [[nodiscard]] const Health& GetHealth() const { return m_health; }
  /// False when the thread has stood still for a while: the process is not what it should be. Thread-safe.
  [[nodiscard]] bool IsAlive() const { return Now() - m_lastLook.load() < std::chrono::seconds(10); }

 protected:
  void Run() override {
    m_health.Sample();
    m_lastLook = Now();
    WaitForCancel(std::chrono::seconds(1));
  }

 private:
  static std::chrono::steady_clock::duration Now() { return std::chrono::steady_clock::now().time_since_epoch(); }

  Health m_health;
  std::atomic<std::chrono::steady_clock::duration> m_lastLook{Now()};
};

}  // namespace Tavi::Recorder
