// Follows the health of one source from sample to sample.
#include "Recorder/Health/SourceWatch.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "Tavi/PipelineCollect/RingTime.h"

namespace Tavi::Recorder {

using Pipeline::PipelineType;

namespace {

constexpr int SilentPeriods = 5;
/// A source takes its time to start, a receiver or a camera on USB some seconds.
constexpr std::chrono::milliseconds LongestStart{10'000};
/// On a loaded machine a source of 30 entries a second pauses for five periods without being ill.
constexpr std::chrono::milliseconds LeastSilence{500};

double ToSeconds(std::chrono::nanoseconds duration) {
  return std::chrono::duration<double>(duration).count();
}

std::chrono::milliseconds ToMilliseconds(double seconds) {
  return std::chrono::milliseconds(std::llround(seconds * 1000.0));
}

/// Sensors number their entries instead: their time stamps show no gap, whatever is missing.
bool HasMediaTime(PipelineType type) {
  return type != PipelineType::Gps && type != PipelineType::Acc && type != PipelineType::Other;
}

}  // namespace

std::optional<SourceWatch::Notice> SourceWatch::Observe(const Ring& ring, const Entry& newest, double rate,
                                                        Milliseconds now) {
  if (!ring) {
    Stop();
    return std::nullopt;
  }
  if (m_ring.owner_before(ring) || ring.owner_before(m_ring)) {
    if (m_wasThere) BeginAnew();
    m_busErrors = m_overflows = m_revivals = 0;
    m_ring = ring;
    m_wasThere = true;
  }
  m_health.configuredRate = rate;
  const std::uint64_t delivered = newest ? Take(newest, now) : 0;
  if (m_newestId) AddPoint(now);
  m_health.rate = MeasureRate();
  return JudgeSilence(delivered, now);
}

/// The ring is remembered: another one is a restart.
void SourceWatch::Stop() {
  m_health.state = SourceState::Stopped;
  m_health.rate = 0.0;
  m_health.newestAge.reset();
  m_health.problem.clear();
  m_startedAt.reset();
}

void SourceWatch::BeginAnew() {
  ++m_health.restarts;
  m_newestId.reset();
  m_startedAt.reset();
  m_pointCount = 0;
  m_owed = 0;
}

void SourceWatch::NoteDevice(std::uint64_t busErrors, std::uint64_t overflows) {
  m_health.busErrors = m_health.busErrors.value_or(0) + busErrors - m_busErrors;
  m_health.overflows = m_health.overflows.value_or(0) + overflows - m_overflows;
  m_busErrors = busErrors;
  m_overflows = overflows;
}

void SourceWatch::NoteProblem(const std::string& problem) {
  m_health.problem = problem;
  if (!problem.empty()) m_health.state = SourceState::Missing;
}

void SourceWatch::NoteRevivals(std::uint64_t revivals) {
  m_health.revivals = m_health.revivals.value_or(0) + revivals - m_revivals;
  m_revivals = revivals;
}

std::uint64_t SourceWatch::Take(const Entry& newest, Milliseconds now) {
  const std::uint64_t id = newest->frameId;
  if (m_newestId == id) return 0;
  if (m_newestId && id < *m_newestId) BeginAnew();
  const std::uint64_t delivered = m_newestId ? id - *m_newestId : id + 1;
  const Moment moment = GetMoment(*newest, now);
  if (m_newestId) CountMissed(delivered, moment);
  m_newestId = id;
  m_newest = moment;
  m_health.entries += delivered;
  return delivered;
}

SourceWatch::Moment SourceWatch::GetMoment(const Kbase::Pipeline::IPipelineCbElement& entry, Milliseconds now) const {
  Moment moment{now - PipelineCollect::GetAge(&entry), std::nullopt};
  const auto timestamp = PipelineCollect::GetTimestamp(&entry);
  if (timestamp && HasMediaTime(m_health.type)) moment.media = std::chrono::nanoseconds(*timestamp);
  return moment;
}

/// Compares the time between two newest entries with how many came in it, rounded to whole periods, so that a source
/// whose clock is a little off misses nothing. What the next sample finds made up for was late and is not counted.
void SourceWatch::CountMissed(std::uint64_t delivered, const Moment& moment) {
  const bool byMedia = moment.media && m_newest.media;
  const std::chrono::nanoseconds elapsed =
      byMedia ? *moment.media - *m_newest.media : std::chrono::nanoseconds(moment.arrival - m_newest.arrival);
  const std::int64_t due = std::llround(ToSeconds(elapsed) * m_health.configuredRate);
  const std::int64_t owed = m_owed + due - static_cast<std::int64_t>(delivered);
  const std::int64_t missed = m_health.configuredRate > 0.0 ? std::clamp<std::int64_t>(owed, 0, m_owed) : 0;
  m_health.missed += static_cast<std::uint64_t>(missed);
  m_owed = std::max<std::int64_t>(owed, 0) - missed;
}

void SourceWatch::AddPoint(Milliseconds now) {
  if (m_pointCount == m_points.size()) {
    std::move(m_points.begin() + 1, m_points.end(), m_points.begin());
    --m_pointCount;
  }
  m_points[m_pointCount++] = {now, m_newest.arrival, m_health.entries};
}

/// Entries by the time between their arrivals, which does not depend on when the samples are taken. That time is
/// bounded by the samples', or a source that stopped would keep its rate until the window has passed it.
double SourceWatch::MeasureRate() const {
  if (m_pointCount < 2 || m_health.configuredRate <= 0.0) return 0.0;
  const Point& first = m_points.front();
  const Point& last = m_points[m_pointCount - 1];
  const double period = 1.0 / m_health.configuredRate;
  const double sampled = ToSeconds(last.sampled - first.sampled);
  const double seconds = std::clamp(ToSeconds(last.arrival - first.arrival), sampled - period, sampled + period);
  return seconds > 0.0 ? static_cast<double>(last.entries - first.entries) / seconds : 0.0;
}

std::optional<SourceWatch::Notice> SourceWatch::JudgeSilence(std::uint64_t delivered, Milliseconds now) {
  m_health.newestAge.reset();
  if (!m_newestId) {
    m_startedAt = m_startedAt.value_or(now);
    m_health.state = now - *m_startedAt < LongestStart ? SourceState::Starting : SourceState::Missing;
    return std::nullopt;
  }
  const Milliseconds age = std::max(now - m_newest.arrival, Milliseconds(0));
  m_health.newestAge = age;
  m_health.state = SourceState::Running;
  const double rate = m_health.configuredRate;
  if (rate > 0.0 && age > std::max(LeastSilence, ToMilliseconds(SilentPeriods / rate))) {
    m_health.state = SourceState::Silent;
    if (m_silentSince) return std::nullopt;
    m_silentSince = m_newest.arrival;
    return Notice{Kbase::Klog::Level::Warning,
                  fmt::format("{} has been silent for {} ms", Pipeline::GetPeoplesName(m_health.type), age.count())};
  }
  if (m_silentSince && delivered > 0) return ReportReturn(delivered);
  return std::nullopt;
}

/// The silence ended with the first of the new entries.
SourceWatch::Notice SourceWatch::ReportReturn(std::uint64_t delivered) {
  const double sinceThen = static_cast<double>(delivered - 1) / m_health.configuredRate;
  const Milliseconds silence = m_newest.arrival - ToMilliseconds(sinceThen) - *m_silentSince;
  m_silentSince.reset();
  return {Kbase::Klog::Level::Info,
          fmt::format("{} is back after {} ms of silence", Pipeline::GetPeoplesName(m_health.type),
                      std::max(silence, Milliseconds(0)).count())};
}

}  // namespace Tavi::Recorder
