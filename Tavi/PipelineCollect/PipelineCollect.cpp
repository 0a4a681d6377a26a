// The collector of one ring.
#include "Tavi/PipelineCollect/PipelineCollect.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <limits>
#include <string>
#include <utility>

#include <fmt/format.h>

#include "Tavi/GstUtil/GstPipelineCbElement.h"
#include "Tavi/GstUtil/Log.h"
#include "Tavi/PipelineCollect/RingTime.h"

namespace Tavi::PipelineCollect {

using GstUtil::GstPipelineCbElement;
using Kbase::Pipeline::IPipelineElement;

namespace {

/// A little more than one entry's interval, so that each wake-up normally finds one new entry.
constexpr int WakeMarginMs = 3;

/// Index of the window's last entry: the entry at that offset is written too, so that the window's end is in the file.
std::uint64_t CountEntries(std::int32_t durationSeconds, float fps) {
  const float entries = std::abs(static_cast<float>(durationSeconds)) * fps;
  return entries > 0.0F ? static_cast<std::uint64_t>(entries) : 0;
}

std::chrono::milliseconds WakePeriod(float fps) {
  const float intervalMs = fps > 0.0F ? 1000.0F / fps : 0.0F;
  return std::chrono::milliseconds(static_cast<int>(std::min(intervalMs, 60000.0F)) + WakeMarginMs);
}

/// How long ago the entry was made; entries that do not tell are new.
std::chrono::milliseconds AgeOf(const Kbase::Pipeline::IPipelineCbElement* entry) {
  const auto* media = dynamic_cast<const GstPipelineCbElement*>(entry);
  return media != nullptr ? media->GetAge() : std::chrono::milliseconds(0);
}

}  // namespace

/// How far a collect has come.
struct PipelineCollect::Progress {
  RingReader reader;
  /// Offset of the next entry in the window.
  std::uint64_t index = 0;
  /// Offset of the window's last entry.
  std::uint64_t last = 0;
};

PipelineCollect::PipelineCollect(IPipelineElement* element, PipelineCollectType type, std::string threadName)
    : CollectBase(type, std::move(threadName)), m_element(element) {}

PipelineCollect::~PipelineCollect() {
  Stop();
}

void PipelineCollect::Init(PipelineCollectConfig& config) {
  m_startPos = 0;
  m_armedAt = std::chrono::steady_clock::now();
  CollectBase::Init(config);
}

void PipelineCollect::Reset() {
  m_startPos = 0;
  CollectBase::Reset();
}

void PipelineCollect::CopyTo(CollectBase* other) {
  CollectBase::CopyTo(other);
  auto* twin = dynamic_cast<PipelineCollect*>(other);
  if (twin == nullptr) return;
  twin->m_element = m_element;
  twin->m_startPos = m_startPos;
  twin->m_secondsCollected = m_secondsCollected;
  twin->m_window = m_window;
  twin->m_fps = m_fps;
  twin->m_life = m_life;
  twin->m_bound = m_bound;
}

void PipelineCollect::Bind(const std::shared_ptr<IPipelineElement>& element) {
  m_element = element.get();
  m_life = element;
  m_bound = true;
}

std::shared_ptr<IPipelineElement> PipelineCollect::GetRing() const {
  if (m_bound) return m_life.lock();
  return {std::shared_ptr<IPipelineElement>(), m_element};
}

bool PipelineCollect::WriteHeader(FILE* /*file*/) {
  return true;
}

bool PipelineCollect::Write(FILE* /*file*/, Kbase::Pipeline::IPipelineCbElement* /*entry*/) {
  return false;
}

bool PipelineCollect::WriteFooter(FILE* /*file*/) {
  return true;
}

void PipelineCollect::Collect() {
  m_collected = false;
  m_secondsCollected = 0;
  m_window = {};
  std::uint64_t startId = 0;
  {
    const auto ring = GetRing();
    if (!ring) return;
    m_fps = ring->GetFps();
    m_window.fps = m_fps;
    const auto newest = ring->RetrieveCurrent();
    startId = newest ? newest->frameId : IPipelineElement::NoFrameId;
    m_silentBefore = AgeOf(newest.get());
  }
  CollectFile file(m_path);
  if (!file.IsOpen()) return;
  const bool hasHeader = file.Append([this](FILE* stream) { return WriteHeader(stream); });
  // A source that has delivered nothing has no file worth reporting, not even its footer.
  if (startId == IPipelineElement::NoFrameId) return;
  if (hasHeader) WriteWindow(file, startId);
  Finish(file);
}

void PipelineCollect::WriteWindow(CollectFile& file, std::uint64_t startId) {
  const auto period = WakePeriod(m_fps);
  Progress progress{RingReader(m_startPos), 0, CountEntries(m_config.durationSeconds, m_fps)};
  const auto silenceLimit = std::max(SilenceLimit, 5 * period);
  if (const auto ring = GetRing()) progress.reader.Follow(*ring, startId);
  bool more = true;
  while (more && !ShouldStop()) {
    WaitForCancel(period);
    if (ShouldStop()) break;
    const auto ring = GetRing();
    if (!ring) {
      // The source was taken away: no more entries come, so what is there need not wait for them.
      WriteLast(file, progress);
      break;
    }
    const auto newest = ring->RetrieveCurrent();
    if (!newest) break;
    progress.reader.Follow(*ring, newest->frameId);
    more = WritePending(file, progress, newest->frameId > startId ? newest->frameId - startId : 0);
    if (!more || AgeOf(newest.get()) < silenceLimit) continue;
    // What fell silent before the window began has nothing in it: its entries tell of another time.
    const bool inWindow = newest->frameId != startId || m_silentBefore < GetLookBack();
    Log::Warning(fmt::format("{}: its source has been silent for {} ms; {}", m_path, AgeOf(newest.get()).count(),
                             inWindow ? "it ends with what there is" : "it has nothing of this event"));
    if (inWindow) WriteLast(file, progress);
    break;
  }
  if (IsSaving()) {
    if (const auto ring = GetRing()) progress.reader.Follow(*ring, ring->GetCurrentFrameId());
    WriteLast(file, progress);
  }
  m_secondsCollected = m_fps > 0.0F ? static_cast<unsigned int>(static_cast<float>(progress.index) / m_fps) : 0;
  if (progress.reader.GetLost() != 0) {
    Log::Warning("lost " + std::to_string(progress.reader.GetLost()) +
                 " entries that came faster than they could be "
                 "written to " +
                 m_path);
  }
}

/// Writes all that is there of the window.
void PipelineCollect::WriteLast(CollectFile& file, Progress& progress) {
  WritePending(file, progress, std::numeric_limits<std::uint64_t>::max());
}

std::chrono::seconds PipelineCollect::GetLookBack() const {
  return std::chrono::seconds(std::abs(static_cast<std::int64_t>(m_config.startSeconds)));
}

/// Writes what is pending while fewer than `limit` entries are written: one for each new one in the ring. False when
/// the window is complete or the file takes no more.
bool PipelineCollect::WritePending(CollectFile& file, Progress& progress, std::uint64_t limit) {
  while (progress.index < limit && (!ShouldStop() || IsSaving())) {
    const auto entry = progress.reader.Next();
    if (!entry) return true;
    if (!file.Append([&](FILE* stream) { return Write(stream, entry.get()); })) return false;
    Note(entry.get());
    if (progress.index == progress.last) return false;
    ++progress.index;
  }
  return true;
}

void PipelineCollect::Report(PipelineCollectOutput& output) const {
  CollectBase::Report(output);
  if (m_collected && m_window.entries != 0) output.windows[m_type] = m_window;
}

void PipelineCollect::Note(const Kbase::Pipeline::IPipelineCbElement* entry) {
  const std::chrono::duration<double> madeAt = std::chrono::steady_clock::now() - m_armedAt - AgeOf(entry);
  m_window.toSeconds = madeAt.count();
  m_window.lastTimestampNs = GetTimestamp(entry);
  if (m_window.entries++ != 0) return;
  m_window.fromSeconds = m_window.toSeconds;
  m_window.firstTimestampNs = m_window.lastTimestampNs;
}

void PipelineCollect::Finish(CollectFile& file) {
  file.Append([this](FILE* stream) { return WriteFooter(stream); });
  file.Close(m_syncToDisk);
  m_collected = IsPathAvailable();
}

bool PipelineCollect::GetPipelineTimestamp(const IPipelineElement* element, int pos, std::uint64_t& timestampNs) {
  if (element == nullptr) return false;
  const auto time = GetTimestamp(element->GetElementAt(element->SeekRelative(pos, 0)).get());
  timestampNs = time.value_or(timestampNs);
  return time.has_value();
}

bool PipelineCollect::GetPipelineTimestamp(int pos, std::uint64_t& timestampNs) const {
  return GetPipelineTimestamp(GetRing().get(), pos, timestampNs);
}

bool PipelineCollect::SyncWithPipeline(const IPipelineElement* reference, int refPos, int frames, unsigned int& pos) {
  pos = 0;
  const auto ring = GetRing();
  return reference != nullptr && ring && FindSameTime(*ring, *reference, refPos, frames, pos);
}

}  // namespace Tavi::PipelineCollect
