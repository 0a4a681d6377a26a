// The microphone: its GStreamer branch and the ring of its MP3 frames.
#include "Tavi/Audio/AudioPipelineElement.h"

#include <memory>

#include "Tavi/Audio/AudioPipelineCbElement.h"
#include "Tavi/GstUtil/Log.h"

namespace Tavi::Audio {

AudioPipelineElement::AudioPipelineElement(const AudioConfig& config, int ringSize)
    : GstAudioPipelineElement(config), IPipelineElement(ringSize) {}

AudioPipelineElement::AudioPipelineElement(GstElement* pipeline, const AudioConfig& config, int ringSize)
    : GstAudioPipelineElement(pipeline, config), IPipelineElement(ringSize) {}

AudioPipelineElement::~AudioPipelineElement() {
  Detach();
}

void AudioPipelineElement::SetFrame(GstBuffer* buffer) {
  if (buffer == nullptr) return;
  const std::uint64_t id = GetCurrentFrameId() + 1;
  AddNext(std::make_shared<AudioPipelineCbElement>(id, buffer));
  if (id == 0) Log::Info("Aquisition for audio has been started");
}

}  // namespace Tavi::Audio
