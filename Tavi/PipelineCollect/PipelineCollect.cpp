// The collector of one ring.
#include "Tavi/PipelineCollect/PipelineCollect.h"

#include <chrono>
#include <utility>

#include "Tavi/PipelineCollect/RingTime.h"
#include "Tavi/PipelineCollect/WindowRun.h"

namespace Tavi::PipelineCollect {

using Kbase::Pipeline::IPipelineElement;

PipelineCollect::PipelineCollect(IPipelineElement* element, PipelineCollectType type, std::string threadName)
    : CollectBase(type, std::move(threadName)), m_element(element) {}

PipelineCollect::~PipelineCollect() {
  Stop();
}

void PipelineCollect::Init(PipelineCollectConfig& config) {
  m_start = {};
  m_held.reset();
  m_armedAt = std::chrono::steady_clock::now();
  CollectBase::Init(config);
}

void PipelineCollect::Reset() {
  m_start = {};
  m_held.reset();
  CollectBase::Reset();
}

void PipelineCollect::CopyTo(CollectBase* other) {
  CollectBase::CopyTo(other);
  auto* twin = dynamic_cast<PipelineCollect*>(other);
  if (twin == nullptr) return;
  twin->m_element = m_element;
  twin->m_start = m_start;
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

std::string PipelineCollect::Annotate(const Kbase::Pipeline::IPipelineCbElement* /*entry*/) const {
  return {};
}

bool PipelineCollect::WriteFooter(FILE* /*file*/) {
  return true;
}

void PipelineCollect::Collect() {
  m_collected = false;
  m_secondsCollected = 0;
  m_window = {};
  std::uint64_t startId = IPipelineElement::NoFrameId;
  if (const auto ring = GetRing()) {
    m_fps = ring->GetFps();
    startId = ring->GetCurrentFrameId();
  } else if (!m_held) {
    return;
  }
  m_window.fps = m_fps;
  CollectFile file(m_path);
  if (!file.IsOpen()) return;
  const bool hasHeader = file.Append([this](FILE* stream) { return WriteHeader(stream); });
  // A source that has delivered nothing has no file worth reporting, not even its footer.
  if (startId == IPipelineElement::NoFrameId && !m_config.care.cover) return;
  if (hasHeader) WindowRun(*this, file, startId).Write();
  Finish(file);
}

void PipelineCollect::Report(PipelineCollectOutput& output) const {
  CollectBase::Report(output);
  if (m_collected && m_window.entries != 0) output.windows[m_type] = m_window;
}

void PipelineCollect::Finish(CollectFile& file) {
  // Where the window is covered a source that had nothing of it leaves no file that says so in its own words.
  if (m_config.care.cover && m_window.entries == 0) {
    file.Close(false);
    DeletePath();
    return;
  }
  file.Append([this](FILE* stream) { return WriteFooter(stream); });
  file.Close(m_syncToDisk);
  m_collected = IsPathAvailable();
  // Nobody lists a file of 0 bytes, and nobody would remove it.
  if (!m_collected) DeletePath();
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
