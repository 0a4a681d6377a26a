// Keeps a warning that could repeat at sample rate down to one line an interval.
#pragma once

#include <optional>

#include "Kbase/Util/Clock.h"

namespace Kdevice::ACC {

/// Thread-bound; the clock is borrowed.
class Throttle {
 public:
  using Milliseconds = Kbase::Util::IClock::Milliseconds;

  Throttle(Kbase::Util::IClock& clock, Milliseconds interval) : m_clock(clock), m_interval(interval) {}

  /// True at the first call, and then not again before the interval is over.
  [[nodiscard]] bool Take() {
    const Milliseconds now = m_clock.Now();
    if (m_last && now - *m_last < m_interval) return false;
    m_last = now;
    return true;
  }

 private:
  Kbase::Util::IClock& m_clock;
  const Milliseconds m_interval;
  std::optional<Milliseconds> m_last;
};

}  // namespace Kdevice::ACC
