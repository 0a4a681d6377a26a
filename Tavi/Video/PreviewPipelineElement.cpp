// The last few seconds of one camera's scaled frames.
#include "Tavi/Video/PreviewPipelineElement.h"

#include <string>

#include "Tavi/GstUtil/RingEntry.h"
#include "Tavi/Video/VideoPipelineCbElement.h"

namespace Tavi::Video {
namespace {

std::string GetPreviewName(CameraType type) {
  if (type == CameraType::Camera0) return "preview1";
  return type == CameraType::Camera1 ? "preview0" : "";
}

}  // namespace

PreviewPipelineElement::PreviewPipelineElement(const VideoConfig& config, int ringSize)
    : IPipelineElement(ringSize), m_config(config) {}

void PreviewPipelineElement::SetFrame(GstBuffer* buffer) {
  if (GstUtil::AppendBuffer<PreviewPipelineCbElement>(*this, buffer, GetPreviewName(m_config.cameraType))) {
    GstUtil::LogFirst("for preview " + GetCameraName(m_config.cameraType));
  }
}

}  // namespace Tavi::Video
