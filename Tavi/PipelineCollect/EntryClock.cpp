// When the entries of a ring were made, by the steady clock.
#include "Tavi/PipelineCollect/EntryClock.h"

#include <algorithm>

#include "Tavi/PipelineCollect/RingTime.h"

namespace Tavi::PipelineCollect {

namespace {

/// Enough for one that was not held up, few enough for what is asked once an event.
constexpr int LearnEntries = 200;

}  // namespace

bool HasCaptureTimes(PipelineCollectType type) {
  return type == PipelineCollectType::VideoCamera0 || type == PipelineCollectType::VideoCamera1 ||
         type == PipelineCollectType::Audio;
}

void EntryClock::Learn(const Kbase::Pipeline::IPipelineElement& ring) {
  const auto newest = static_cast<int>(ring.GetRingPos());
  const int count = std::min(LearnEntries, static_cast<int>(ring.GetRingSize()) - 1);
  for (int back = 0; m_stamped && back < count; ++back) Learn(ring.GetElementAt(ring.SeekRelative(newest, back)).get());
}

void EntryClock::Learn(const Kbase::Pipeline::IPipelineCbElement* entry) {
  const auto timestamp = GetTimestamp(entry);
  if (!m_stamped || !timestamp) return;
  const auto distance = GetMadeAt(entry).time_since_epoch() - std::chrono::nanoseconds(*timestamp);
  m_distance = m_distance ? std::min(*m_distance, distance) : distance;
}

EntryClock::TimePoint EntryClock::TimeOf(const Kbase::Pipeline::IPipelineCbElement* entry) const {
  const auto timestamp = m_distance ? GetTimestamp(entry) : std::nullopt;
  if (timestamp) return TimePoint(*m_distance + std::chrono::nanoseconds(*timestamp));
  return GetMadeAt(entry);
}

}  // namespace Tavi::PipelineCollect
