// One camera: its GStreamer branch and the ring of its access units.
#include "Tavi/Video/VideoPipelineElement.h"

#include <string>

#include "Tavi/GstUtil/RingEntry.h"
#include "Tavi/Video/PreviewPipelineElement.h"
#include "Tavi/Video/VideoPipelineCbElement.h"

namespace Tavi::Video {

VideoPipelineElement::VideoPipelineElement(const VideoConfig& config, int ringSize)
    : GstVideoPipelineElement(config), IPipelineElement(ringSize), m_cameraName(GetCameraName(config.cameraType)) {}

VideoPipelineElement::VideoPipelineElement(GstElement* pipeline, const VideoConfig& config, int ringSize)
    : GstVideoPipelineElement(pipeline, config),
      IPipelineElement(ringSize),
      m_cameraName(GetCameraName(config.cameraType)) {}

VideoPipelineElement::~VideoPipelineElement() {
  Detach();
}

void VideoPipelineElement::SetEncodedFrame(GstBuffer* buffer) {
  if (buffer == nullptr) return;
  // What follows the stream's setup may run out of memory, too.
  auto owned = GstUtil::GstRef<GstBuffer>::Adopt(buffer);
  auto setup = FollowSetup(buffer);
  if (GstUtil::AppendBuffer<VideoPipelineCbElement>(*this, owned.Release(), m_cameraName, std::move(setup))) {
    GstUtil::LogFirst("for " + m_cameraName);
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
