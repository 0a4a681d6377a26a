// One run of a ring's collector through its window.
#include "Tavi/PipelineCollect/WindowRun.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <string>

#include "Tavi/GstUtil/Log.h"
#include "Tavi/PipelineCollect/EntryTimes.h"
#include "Tavi/PipelineCollect/RingTime.h"

namespace Tavi::PipelineCollect {

using Milliseconds = std::chrono::milliseconds;

namespace {

/// A little more than one entry's interval, so that each wake-up normally finds one new entry.
constexpr int WakeMarginMs = 3;
/// How long a slow source's number of entries is waited for once the window's end has passed; the collect as a whole is
/// aborted some seconds later.
constexpr std::chrono::seconds LongestWait{115};

/// Index of the window's last entry: the entry at that offset is written too, so that the window's end is in the file.
std::uint64_t CountEntries(std::int32_t durationSeconds, float fps) {
  const float entries = std::abs(static_cast<float>(durationSeconds)) * fps;
  return entries > 0.0F ? static_cast<std::uint64_t>(entries) : 0;
}

Milliseconds WakePeriod(float fps) {
  const float intervalMs = fps > 0.0F ? 1000.0F / fps : 0.0F;
  return Milliseconds(static_cast<int>(std::min(intervalMs, 60000.0F)) + WakeMarginMs);
}

std::chrono::seconds Absolute(std::int32_t seconds) {
  return std::chrono::seconds(std::abs(static_cast<std::int64_t>(seconds)));
}

}  // namespace

PipelineCollect::WindowRun::WindowRun(PipelineCollect& collect, CollectFile& file, std::uint64_t startId)
    : m_collect(collect),
      m_file(file),
      m_care(collect.m_config.care),
      m_moment(m_care.moment.value_or(collect.m_armedAt)),
      m_period(WakePeriod(collect.m_fps)),
      m_silenceLimit(std::max(m_care.cover ? CoveredSilenceLimit : SilenceLimit, 5 * m_period)),
      m_startId(startId),
      m_reader(collect.m_held ? std::move(*collect.m_held) : RingReader(collect.m_start)),
      m_clock(collect.m_type),
      m_last(CountEntries(collect.m_config.durationSeconds, collect.m_fps)) {}

void PipelineCollect::WindowRun::Write() {
  Begin();
  while (!m_collect.ShouldStop()) {
    // What is asked for at a higher pace need not wait for the first new entry.
    if (m_wakes != 0 || m_care.pace <= 1) m_collect.WaitForCancel(m_period);
    ++m_wakes;
    if (m_collect.ShouldStop() || !Step()) break;
  }
  // Behind an entry that did not fit nothing can be decoded, should there be room again.
  if (m_collect.IsSaving() && !m_isFull) WriteWhatIsSaved();
  if (m_times) m_times->Close(m_collect.m_syncToDisk);
  ReportWindow();
}

void PipelineCollect::WindowRun::Begin() {
  const float fps = m_collect.m_fps;
  if (m_care.keepTimes) {
    m_times.emplace(m_collect.m_path + std::string(TimesSuffix));
    m_times->Append([&](FILE* file) {
      return std::fputs(FormatTimesHeader(fps, HasCaptureTimes(m_collect.m_type)).c_str(), file) >= 0;
    });
  }
  const auto ring = m_collect.GetRing();
  if (!ring) return;
  m_clock.Learn(*ring);
  m_silentBefore = GetAge(*ring);
  if (m_startId != Ring::NoFrameId) m_reader.Follow(*ring, m_startId);
}

/// Looks for new entries and writes what may be written. False when the window has ended.
bool PipelineCollect::WindowRun::Step() {
  const auto ring = m_collect.GetRing();
  if (!ring) {
    // The source was taken away: no more entries come, so what is there need not wait for them.
    WriteLast();
    return false;
  }
  const auto newest = ring->RetrieveCurrent();
  if (!newest) return m_care.cover && !EndsInSilence(newest);
  m_reader.Follow(*ring, newest->frameId);
  return WritePending(GetAllowance(newest)) && !EndsInSilence(newest);
}

/// How many entries may be written by now.
std::uint64_t PipelineCollect::WindowRun::GetAllowance(const Entry& newest) const {
  if (m_care.pace > 1) return m_wakes * static_cast<std::uint64_t>(m_care.pace);
  if (m_startId == Ring::NoFrameId) return newest->frameId + 1;
  return newest->frameId > m_startId ? newest->frameId - m_startId : 0;
}

/// True when the source has fallen silent and nobody waits for it; what there is of the window is written then.
bool PipelineCollect::WindowRun::EndsInSilence(const Entry& newest) {
  const auto age = newest ? GetAge(newest.get())
                          : std::chrono::duration_cast<Milliseconds>(std::chrono::steady_clock::now() - m_begunAt);
  m_collect.m_silent = age >= m_silenceLimit;
  if (!m_collect.m_silent || (m_care.cover && !m_collect.m_endInSilence)) return false;
  // What fell silent before the window began has nothing in it: its entries tell of another time.
  const bool inWindow = newest && (newest->frameId != m_startId ||
                                   m_silentBefore < Absolute(m_collect.m_config.startSeconds) || m_care.cover);
  Log::Warning(fmt::format("{}: its source has been silent for {} ms; {}", m_collect.m_path, age.count(),
                           inWindow ? "it ends with what there is" : "it has nothing of this event"));
  if (inWindow) WriteLast();
  return true;
}

/// Power fails: what has come up to now is written without regard to any pace.
void PipelineCollect::WindowRun::WriteWhatIsSaved() {
  if (const auto ring = m_collect.GetRing()) m_reader.Follow(*ring, ring->GetCurrentFrameId());
  WriteLast();
}

/// Writes all that is there of the window.
void PipelineCollect::WindowRun::WriteLast() {
  WritePending(std::numeric_limits<std::uint64_t>::max());
}

/// Writes what is pending while fewer than `limit` entries are written. False when the window is complete or the file
/// takes no more.
bool PipelineCollect::WindowRun::WritePending(std::uint64_t limit) {
  while (m_index < limit && (!m_collect.ShouldStop() || m_collect.IsSaving())) {
    const auto entry = m_reader.Next();
    if (!entry) return true;
    if (!WriteEntry(entry)) return false;
    if (IsComplete(entry)) return false;
    ++m_index;
  }
  return true;
}

bool PipelineCollect::WindowRun::WriteEntry(const Entry& entry) {
  m_isFull = !m_file.Append([&](FILE* stream) { return m_collect.Write(stream, entry.get()); });
  if (m_isFull) return false;
  if (m_times) {
    const auto arrived = GetMadeAt(entry.get()) - m_moment;
    const EntryTime time{std::chrono::nanoseconds(arrived).count(), GetTimestamp(entry.get()),
                         m_collect.Annotate(entry.get())};
    // A companion that cannot be written has its line in the log, and costs no entry. It ends there: a line less in the
    // middle would give each later entry the time of another.
    if (!m_times->Append([&](FILE* file) { return std::fputs(FormatEntryTime(time).c_str(), file) >= 0; })) {
      m_times.reset();
    }
  }
  Note(entry.get());
  m_lastEntry = entry;
  if (!m_firstEntry) m_firstEntry = entry;
  return true;
}

PipelineCollect::WindowRun::TimePoint PipelineCollect::WindowRun::GetWindowStart() const {
  return m_moment - Absolute(m_collect.m_config.startSeconds);
}

/// True when `entry`, which has just been written, is the window's last one.
bool PipelineCollect::WindowRun::IsComplete(const Entry& entry) const {
  const bool isCounted = m_index >= m_last;
  if (!m_care.cover) return isCounted;
  const bool isReached = m_clock.TimeOf(entry.get()) >= GetWindowStart() + Absolute(m_care.coverSeconds);
  return isReached && (isCounted || std::chrono::steady_clock::now() >= m_moment + LongestWait);
}

void PipelineCollect::WindowRun::Note(const Kbase::Pipeline::IPipelineCbElement* entry) {
  m_clock.Learn(entry);
  CollectedWindow& window = m_collect.m_window;
  if (window.entries++ == 0) return;
  const auto before = m_clock.TimeOf(m_lastEntry.get());
  const std::chrono::duration<double> gap = m_clock.TimeOf(entry) - before;
  if (gap.count() <= window.longestGapSeconds) return;
  window.longestGapSeconds = gap.count();
  window.longestGapFromSeconds = ToSeconds(before);
}

double PipelineCollect::WindowRun::ToSeconds(TimePoint time) const {
  return std::chrono::duration<double>(time - m_moment).count();
}

/// The clock has seen all of the window only now.
void PipelineCollect::WindowRun::ReportWindow() {
  CollectedWindow& window = m_collect.m_window;
  if (m_firstEntry) {
    window.fromSeconds = ToSeconds(m_clock.TimeOf(m_firstEntry.get()));
    window.toSeconds = ToSeconds(m_clock.TimeOf(m_lastEntry.get()));
    window.firstTimestampNs = GetTimestamp(m_firstEntry.get());
    window.lastTimestampNs = GetTimestamp(m_lastEntry.get());
  }
  window.lost = m_reader.GetLost();
  if (window.lost != 0) {
    Log::Warning(fmt::format("lost {} entries that came faster than they could be written to {}", window.lost,
                             m_collect.m_path));
  }
  const float fps = m_collect.m_fps;
  m_collect.m_secondsCollected = fps > 0.0F ? static_cast<unsigned int>(static_cast<float>(m_index) / fps) : 0;
}

}  // namespace Tavi::PipelineCollect
