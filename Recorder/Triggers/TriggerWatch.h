// Watches the sensors for reasons to take an event.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "Kbase/Interfaces/IThread.h"
#include "Kbase/Util/Clock.h"
#include "Recorder/Triggers/AccelerationTrigger.h"
#include "Recorder/Triggers/LiveRing.h"
#include "Recorder/Triggers/LowSpeedGuard.h"
#include "Tavi/Pipeline/PipelineType.h"

namespace Tavi::Recorder::Triggers {

/// Owns the thread "TRIGGER", which looks at the rings of accelerometer and GPS receiver every 50 ms, runs the trigger
/// on the samples and asks the guard. The acquisition may come and go meanwhile; no ring is held while the callback
/// runs. Start and Stop as any thread.
class TriggerWatch final : public Kbase::Interfaces::IThread {
 public:
  /// The present ring of a source, null when there is none.
  using GetRing = std::function<LiveRing::Ring(Pipeline::PipelineType)>;
  /// Told why, in one phrase for people. Called on the thread; must not throw. While it runs nothing is watched, and
  /// what is delivered meanwhile is looked at afterwards.
  using Callback = std::function<void(const std::string& reason)>;

  struct Settings {
    AccelerationTrigger::Settings acceleration;
    /// Below this speed nothing is reported; 0 for no such guard.
    double minSpeedKnots = 0.0;
  };

  /// `clock` is borrowed.
  TriggerWatch(const Settings& settings, GetRing getRing, Callback callback,
               Kbase::Util::IClock& clock = Kbase::Util::IClock::Steady());
  ~TriggerWatch() override;

 private:
  void Run() override;
  void FollowGps();
  void FollowAcc();
  void Judge(const AccelerationTrigger::Firing& firing);

  const GetRing m_getRing;
  const Callback m_callback;
  Kbase::Util::IClock& m_clock;
  AccelerationTrigger m_trigger;
  LowSpeedGuard m_guard;
  LiveRing m_acc;
  LiveRing m_gps;
};

}  // namespace Tavi::Recorder::Triggers
