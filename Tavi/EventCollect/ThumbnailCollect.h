// The collector of a camera's still.
#pragma once

#include "Tavi/PipelineCollect/PipelineCollect.h"

namespace Tavi::Video {
class GstIpuFrame;
}

namespace Tavi::PipelineCollect {

/// Writes the camera's newest raw frame as a JPEG of 280 x 160 pixels. The still shows the scene while the collect
/// runs, wherever the event's window lies. A camera that delivers no frame within SilenceLimit, or is taken away
/// meanwhile, has no thumbnail in this event, and one line in the log says so.
class ThumbnailCollect final : public PipelineCollect {
 public:
  /// `element` is the camera's, borrowed (see Bind); with any other, or null, nothing is ever collected. `cr`: the
  /// collector belongs to the second manager.
  ThumbnailCollect(Kbase::Pipeline::IPipelineElement* element, CameraType camera, bool cr);
  ~ThumbnailCollect() override;

  static PipelineCollectType GetThumbnailPipelineCollectType(CameraType camera);

  void Init(PipelineCollectConfig& config) override;
  void Collect() override;
  /// The picture of the moment, held since then; without it the collect takes the camera's newest one.
  void SetFrame(std::shared_ptr<Video::GstIpuFrame> frame) { m_frame = std::move(frame); }
  /// Entries of the ring have no part in a still: writes nothing, true.
  bool Write(FILE* file, Kbase::Pipeline::IPipelineCbElement* entry) override;

 private:
  std::shared_ptr<Video::GstIpuFrame> TakeFrame();

  std::shared_ptr<Video::GstIpuFrame> m_frame;
};

}  // namespace Tavi::PipelineCollect
