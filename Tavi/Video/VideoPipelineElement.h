// One camera: its GStreamer branch and the ring of its access units.
#pragma once

#include <string>

#include "Kbase/Pipeline/IPipelineElement.h"
#include "Tavi/Video/GstVideoPipelineElement.h"

namespace Tavi::Video {

class PreviewPipelineElement;

/// A ring of encoded H.264 access units, one entry each, filled on the encoder's streaming thread. Start and Stop open
/// and close the gate behind the camera; the pipeline's state is the pipeline manager's.
class VideoPipelineElement final : public GstVideoPipelineElement, public Kbase::Pipeline::IPipelineElement {
 public:
  VideoPipelineElement(const VideoConfig& config, int ringSize);
  VideoPipelineElement(GstElement* pipeline, const VideoConfig& config, int ringSize);
  ~VideoPipelineElement() override;

  void SetEncodedFrame(GstBuffer* buffer) override;
  /// Hands the frame to the preview element; without one the frame is released.
  void SetPreviewFrame(GstBuffer* buffer) override;
  void Start() override { SetRunning(true); }
  void Stop() override { SetRunning(false); }
  float GetFps() override { return static_cast<float>(GetConfig().fps); }

  /// Where preview frames go, borrowed; set before the pipeline runs.
  void SetPreviewElement(PreviewPipelineElement* preview) { m_previewElement = preview; }

 private:
  PreviewPipelineElement* m_previewElement = nullptr;
  /// As people know it.
  const std::string m_cameraName;
};

}  // namespace Tavi::Video
