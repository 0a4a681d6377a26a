// The last few seconds of one camera's scaled frames.
#include "Tavi/Video/PreviewPipelineElement.h"

#include <memory>
#include <string>

#include "Tavi/GstUtil/Log.h"
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
  if (buffer == nullptr) return;
  const std::uint64_t id = GetCurrentFrameId() + 1;
  AddNext(std::make_shared<PreviewPipelineCbElement>(id, buffer, GetPreviewName(m_config.cameraType)));
  if (id == 0) Log::Info("Aquisition for preview " + GetCameraName(m_config.cameraType) + " has been started");
}

}  // namespace Tavi::Video
