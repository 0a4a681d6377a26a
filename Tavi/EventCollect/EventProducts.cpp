// What becomes of the files that an event's collectors have written.
#include "Tavi/EventCollect/EventProducts.h"

#include <cstdint>

#include "Tavi/Audio/AudioPipelineCollect.h"
#include "Tavi/Video/VideoPipelineCollect.h"

namespace Tavi::PipelineCollect {
namespace {

/// How much later in nanoseconds what `second` wrote begins than what `first` wrote; 0 when one of them cannot tell.
std::int64_t DelayBetween(const PipelineCollect& first, const PipelineCollect& second) {
  const auto from = first.GetFirstTimestamp();
  const auto to = second.GetFirstTimestamp();
  return from && to ? static_cast<std::int64_t>(*to - *from) : 0;
}

}  // namespace

void EventProducts::Mux() const {
  const auto getCamera = [this](PipelineCollectType type) {
    return CollectorSet::GetFinished<Video::VideoPipelineCollect>(m_collectors, type);
  };
  Mux(getCamera(PipelineCollectType::VideoCamera1), getCamera(PipelineCollectType::VideoCamera0),
      CollectorSet::GetFinished<Audio::AudioPipelineCollect>(m_collectors, PipelineCollectType::Audio), m_keepStreams);
}

void EventProducts::Mux(Video::VideoPipelineCollect* camera1, Video::VideoPipelineCollect* camera0,
                        const Audio::AudioPipelineCollect* audio, bool keepStreams) {
  const bool withSound = audio != nullptr && audio->IsCollected() && !audio->GetPath().empty();
  for (Video::VideoPipelineCollect* camera : {camera1, camera0}) {
    if (camera == nullptr) continue;
    if (withSound) {
      camera->Mux(audio->GetPath(), DelayBetween(*camera, *audio), keepStreams);
    } else {
      camera->BuildMp4(keepStreams);
    }
  }
}

void EventProducts::BuildOutput(PipelineCollectOutput& output) const {
  for (const auto& [type, collector] : m_collectors) {
    if (!collector->IsRunning()) collector->Report(output);
  }
}

}  // namespace Tavi::PipelineCollect
