// The health of all sources.
#include "Recorder/Health/Health.h"

#include <optional>
#include <utility>

#include "Tavi/Accel/AccPipelineElement.h"
#include "Tavi/Audio/AudioPipelineElement.h"
#include "Tavi/GstUtil/BranchRestart.h"
#include "Tavi/GstUtil/Log.h"
#include "Tavi/Video/VideoPipelineElement.h"

namespace Tavi::Recorder {
namespace {

void NoteBranch(SourceWatch& source, const GstUtil::BranchRestart& branch) {
  source.NoteRevivals(branch.GetCount());
  source.NoteProblem(branch.GetProblem());
}

}  // namespace

Health::Health(GetRing getRing, Kbase::Util::IClock& clock)
    : m_getRing(std::move(getRing)), m_clock(clock), m_sources(AllSources.begin(), AllSources.end()) {}

void Health::Sample() {
  for (SourceWatch& source : m_sources) SampleSource(source);
}

void Health::SampleSource(SourceWatch& source) {
  const Ring ring = m_getRing(source.GetHealth().type);
  const auto newest = ring ? ring->RetrieveCurrent() : nullptr;
  const double rate = ring ? static_cast<double>(ring->GetFps()) : 0.0;
  const auto now = m_clock.Now();
  std::optional<SourceWatch::Notice> notice;
  {
    const std::lock_guard lock(m_mutex);
    notice = source.Observe(ring, newest, rate, now);
    if (const auto* chip = dynamic_cast<const Accel::AccPipelineElement*>(ring.get())) {
      source.NoteDevice(chip->GetBusErrorCount(), chip->GetOverflowCount());
    } else if (const auto* camera = dynamic_cast<const Video::VideoPipelineElement*>(ring.get())) {
      NoteBranch(source, camera->GetBranch());
    } else if (const auto* audio = dynamic_cast<const Audio::AudioPipelineElement*>(ring.get())) {
      NoteBranch(source, audio->GetBranch());
    }
  }
  if (notice) Kbase::Klog::Logger::GetInstance().Log(notice->level, Log::Tag, notice->text);
}

std::vector<SourceHealth> Health::Read() const {
  std::vector<SourceHealth> all;
  const std::lock_guard lock(m_mutex);
  all.reserve(m_sources.size());
  for (const SourceWatch& source : m_sources) {
    if (source.WasThere()) all.push_back(source.GetHealth());
  }
  return all;
}

}  // namespace Tavi::Recorder
