// The microphone: its GStreamer branch and the ring of its MP3 frames.
#pragma once

#include "Kbase/Pipeline/IPipelineElement.h"
#include "Tavi/Audio/GstAudioPipelineElement.h"

namespace Tavi::Audio {

/// A ring of MP3 frames, one entry each, filled on the appsink's streaming thread. Start and Stop open and close the
/// gate behind the microphone; the pipeline's state is the pipeline manager's.
class AudioPipelineElement final : public GstAudioPipelineElement, public Kbase::Pipeline::IPipelineElement {
 public:
  AudioPipelineElement(const AudioConfig& config, int ringSize);
  AudioPipelineElement(GstElement* pipeline, const AudioConfig& config, int ringSize);
  ~AudioPipelineElement() override;

  void SetFrame(GstBuffer* buffer) override;
  void Start() override { SetRunning(true); }
  void Stop() override { SetRunning(false); }
  /// MP3 frames per second as configured.
  float GetFps() override { return GetConfig().frameRate; }
};

}  // namespace Tavi::Audio
