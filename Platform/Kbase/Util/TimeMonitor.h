// A stop watch for time limits.
#pragma once

#include "Kbase/Util/Clock.h"

namespace Kbase::Util {

/// Measures the time since its construction or last Start. Thread-bound; the clock is borrowed.
class TimeMonitor {
 public:
  explicit TimeMonitor(IClock& clock = IClock::Steady());
  void Start();
  [[nodiscard]] IClock::Milliseconds Elapsed() const;

 private:
  IClock& m_clock;
  IClock::Milliseconds m_start;
};

}  // namespace Kbase::Util
