// One camera: its GStreamer branch and the ring of its access units.
#include "Tavi/Video/VideoPipelineElement.h"

#include <memory>

#include "Tavi/GstUtil/Log.h"
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
  if (buffer == nullptr) return;
  const std::uint64_t id = GetCurrentFrameId() + 1;
  const std::string camera = GetCameraName(GetConfig().cameraType);
  AddNext(std::make_shared<VideoPipelineCbElement>(id, buffer, camera, FollowSetup(buffer)));
  if (id == 0) Log::Info("Aquisition for " + camera + " has been started");
}

void VideoPipelineElement::SetPreviewFrame(GstBuffer* buffer) {
  if (m_previewElement != nullptr) {
    m_previewElement->SetFrame(buffer);
  } else if (buffer != nullptr) {
    gst_buffer_unref(buffer);
  }
}

}  // namespace Tavi::Video
