// A periodic call on a thread of its own.
#include "Kbase/Util/Timer.h"

#include <algorithm>
#include <utility>

namespace Kbase::Util {

Timer::Timer(int periodMs, Callback callback, void* /*context*/, int /*stackBytes*/)
    : IThread("TIMER"),
      m_period(std::max(periodMs, 1)),
      m_callback(std::move(callback)),
      m_next(Clock::now() + m_period) {
  Start();
}

Timer::~Timer() {
  Stop();
}

void Timer::Run() {
  const auto left = std::chrono::ceil<Milliseconds>(m_next - Clock::now());
  if (left.count() > 0) {
    WaitForCancel(left);
    return;
  }
  // One that fails is a call like any other: the grid stays.
  m_callGuard.Run([this] { m_callback(this); });
  const auto periodsLate = (Clock::now() - m_next) / m_period;
  m_next += m_period * (periodsLate + 1);
}

}  // namespace Kbase::Util
