// The last few seconds of one camera's scaled frames.
#pragma once

#include "Kbase/Pipeline/IPipelineElement.h"
#include "Tavi/Video/VideoConfig.h"

struct _GstBuffer;
using GstBuffer = _GstBuffer;

namespace Tavi::Video {

/// A ring of raw I420 preview frames. It has no branch of its own: the camera's element feeds it on its preview thread.
class PreviewPipelineElement final : public Kbase::Pipeline::IPipelineElement {
 public:
  PreviewPipelineElement(const VideoConfig& config, int ringSize);

  /// Nothing to do: the camera element's own start and stop gate the frames.
  void Start() override {}
  void Stop() override {}
  float GetFps() override { return static_cast<float>(m_config.previewFps); }
  /// Length of the preview clip in seconds.
  int GetLength() const { return m_config.previewSeconds; }

  /// Appends one frame; takes over the caller's reference. A null buffer is ignored.
  void SetFrame(GstBuffer* buffer);

 private:
  const VideoConfig m_config;
};

}  // namespace Tavi::Video
