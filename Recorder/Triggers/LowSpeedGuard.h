// Tells a vehicle that drives from one that is parked, loaded or washed.
#pragma once

#include <chrono>
#include <deque>

#include "Tavi/Gps/GpsData.h"

namespace Tavi::Recorder::Triggers {

/// Goes by the highest speed of the last ten seconds: a crash stops the car before the trigger fires. Without a valid
/// fix in that time everything is allowed, because an event lost is worse than one too many. Thread-bound.
class LowSpeedGuard {
 public:
  using Milliseconds = std::chrono::milliseconds;

  /// 0 allows everything.
  explicit LowSpeedGuard(double minSpeedKnots) : m_minSpeedKnots(minSpeedKnots) {}

  /// A fix that came at `at`, in order; invalid ones are left out.
  void Feed(const Gps::GpsData& fix, Milliseconds at);
  /// Whether an event is to be taken at `now`, on the clock that Feed was told the time of.
  [[nodiscard]] bool IsAllowed(Milliseconds now);

 private:
  struct Speed {
    Milliseconds at;
    double knots;
  };

  const double m_minSpeedKnots;
  /// Falling speeds: one that a later one has reached does not matter any more.
  std::deque<Speed> m_speeds;
};

}  // namespace Tavi::Recorder::Triggers
