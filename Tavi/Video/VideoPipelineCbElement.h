// Ring entries of a camera: encoded access units and scaled preview frames.
#pragma once

#include <string>

#include "Tavi/GstUtil/GstPipelineCbElement.h"
#include "Tavi/PipelineCollect/CameraType.h"

namespace Tavi::Video {

/// The name that people know a camera by: "camera1" for value 0, "camera0" for value 1, empty for any other value.
inline std::string GetCameraName(CameraType type) {
  if (type == CameraType::Camera0) return "camera1";
  return type == CameraType::Camera1 ? "camera0" : "";
}

/// One encoded H.264 access unit.
class VideoPipelineCbElement final : public GstUtil::GstPipelineCbElement {
 public:
  VideoPipelineCbElement(std::uint64_t id, GstBuffer* ownedBuffer, const std::string& camera)
      : GstPipelineCbElement(id, ownedBuffer, camera), cameraName(camera) {}

  const std::string cameraName;
};

/// One raw I420 preview frame.
class PreviewPipelineCbElement final : public GstUtil::GstPipelineCbElement {
 public:
  using GstPipelineCbElement::GstPipelineCbElement;
};

}  // namespace Tavi::Video
