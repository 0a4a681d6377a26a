// A stop watch for time limits.
#include "Kbase/Util/TimeMonitor.h"

namespace Kbase::Util {

TimeMonitor::TimeMonitor(IClock& clock) : m_clock(clock), m_start(clock.Now()) {}

void TimeMonitor::Start() {
  m_start = m_clock.Now();
}

IClock::Milliseconds TimeMonitor::Elapsed() const {
  return m_clock.Now() - m_start;
}

}  // namespace Kbase::Util
