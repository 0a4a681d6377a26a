// What time it is: by the receiver once it has a fix, by the system's clock until then.
#include "Recorder/Service/TimeOfDay.h"

#include <algorithm>
#include <cstdlib>

namespace Tavi::Recorder {
namespace {

using std::chrono::milliseconds;
using SteadyTime = std::chrono::steady_clock::time_point;

constexpr std::int64_t ToleranceMs = 1000;
constexpr int Agreeing = 3;
constexpr std::chrono::seconds Window{60};

std::int64_t ToMs(SteadyTime moment) {
  return std::chrono::duration_cast<milliseconds>(moment.time_since_epoch()).count();
}

bool IsNear(std::int64_t offsetMs, std::int64_t otherMs) {
  return std::abs(offsetMs - otherMs) <= ToleranceMs;
}

}  // namespace

Moment Moment::Now() {
  const auto system = std::chrono::system_clock::now().time_since_epoch();
  return {std::chrono::steady_clock::now(), std::chrono::duration_cast<milliseconds>(system).count()};
}

bool TimeOfDay::Learn(const Gps::ReceiverTime& reading) {
  const std::lock_guard lock(m_mutex);
  if (m_lastArrival && reading.arrival <= *m_lastArrival) return false;
  m_lastArrival = reading.arrival;
  const std::int64_t offsetMs = reading.utcMs - ToMs(reading.arrival);
  if (m_isKnown && IsNear(offsetMs, GetOffset())) {
    m_doubts = 0;
    const bool isOver = reading.arrival - m_windowBegan >= Window;
    if (isOver) m_bestBefore = m_best;
    if (isOver) m_windowBegan = reading.arrival;
    m_best = isOver ? offsetMs : std::max(m_best, offsetMs);
    return false;
  }
  if (m_doubts == 0 || !IsNear(offsetMs, m_doubt)) m_doubts = 0;
  m_doubt = m_doubts == 0 ? offsetMs : std::max(m_doubt, offsetMs);
  if (++m_doubts < Agreeing) return false;
  Adopt(m_doubt, reading.arrival);
  return true;
}

void TimeOfDay::Adopt(std::int64_t offsetMs, SteadyTime arrival) {
  m_isKnown = true;
  m_best = m_bestBefore = offsetMs;
  m_windowBegan = arrival;
  m_doubts = 0;
}

/// What came late is behind: the reading that is ahead of the others had the shortest way.
std::int64_t TimeOfDay::GetOffset() const {
  return std::max(m_best, m_bestBefore);
}

EventStore::EventTime TimeOfDay::Tell(const Moment& moment) const {
  const std::lock_guard lock(m_mutex);
  if (!m_isKnown) return {moment.systemMs, EventStore::SystemSource, std::nullopt};
  const std::int64_t receiverMs = ToMs(moment.steady) + GetOffset();
  return {receiverMs, EventStore::ReceiverSource, static_cast<double>(moment.systemMs - receiverMs) / 1000.0};
}

std::optional<SteadyTime> TimeOfDay::GetLastReading() const {
  const std::lock_guard lock(m_mutex);
  return m_lastArrival;
}

}  // namespace Tavi::Recorder
