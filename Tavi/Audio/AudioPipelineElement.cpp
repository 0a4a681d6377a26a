// The microphone: its GStreamer branch and the ring of its MP3 frames.
#include "Tavi/Audio/AudioPipelineElement.h"

#include "Tavi/Audio/AudioPipelineCbElement.h"
#include "Tavi/GstUtil/RingEntry.h"

namespace Tavi::Audio {

AudioPipelineElement::AudioPipelineElement(const AudioConfig& config, int ringSize)
    : GstAudioPipelineElement(config), IPipelineElement(ringSize) {}

AudioPipelineElement::AudioPipelineElement(GstElement* pipeline, const AudioConfig& config, int ringSize)
    : GstAudioPipelineElement(pipeline, config), IPipelineElement(ringSize) {}

AudioPipelineElement::~AudioPipelineElement() {
  Detach();
}

void AudioPipelineElement::SetFrame(GstBuffer* buffer) {
  if (GstUtil::AppendBuffer<AudioPipelineCbElement>(*this, buffer)) GstUtil::LogFirst("for audio");
}

}  // namespace Tavi::Audio
