// One camera: its GStreamer branch and the ring of its access units.
#include "Tavi/Video/VideoPipelineElement.h"

#include <string>

#include "Tavi/GstUtil/RingEntry.h"
#include "Tavi/Video/PreviewPipelineElement.h"
#include "Tavi/Video/VideoPipelineCbElement.h"

namespace Tavi::Video {

VideoPipelineElement::VideoPipelineElement(const VideoConfig& config, int ringSize)
    : GstVideoPipelineElement(config), IPipelineElement(ringSize) {}

VideoPipelineElement::VideoPipelineElement(GstElement* pipeline, const VideoConfig& config, int ringSize)
    : GstVideoPipelineElement(pipeline, config), IPipelineElement(ringSize) {}

VideoPipelineElement::~VideoPipelineElement() {
  Detach();
}

void VideoPipelineElement::SetEncodedFrame(GstBuffer* buffer) {
  const std::string camera = GetCameraName(GetConfig().cameraType);
  if (buffer == nullptr) return;
  // What follows the stream's setup may run out of memory, too.
  auto owned = GstUtil::GstRef<GstBuffer>::Adopt(buffer);
  auto setup = FollowSetup(buffer);
  if (GstUtil::AppendBuffer<VideoPipelineCbElement>(*this, owned.Release(), camera, std::move(setup))) {
    GstUtil::LogFirst("for " + camera);
  }
}

void VideoPipelineElement::SetPreviewFrame(GstBuffer* buffer) {
  if (m_previewElement != nullptr) {
    m_previewElement->SetFrame(buffer);
  } else if (buffer != nullptr) {
    gst_buffer_unref(buffer);
  }
}

}  // namespace Tavi::Video
