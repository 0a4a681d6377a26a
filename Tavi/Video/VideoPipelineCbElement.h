// Ring entries of a camera: encoded access units and scaled preview frames.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include "Tavi/GstUtil/GstPipelineCbElement.h"
#include "Tavi/PipelineCollect/CameraType.h"
#include "Tavi/Video/StreamSetup.h"

namespace Tavi::Video {

/// The name that people know a camera by: "camera1" for value 0, "camera0" for value 1, empty for any other value.
inline std::string GetCameraName(CameraType type) {
  if (type == CameraType::Camera0) return "camera1";
  return type == CameraType::Camera1 ? "camera0" : "";
}

/// One encoded H.264 access unit.
class VideoPipelineCbElement final : public GstUtil::GstPipelineCbElement {
 public:
  VideoPipelineCbElement(std::uint64_t id, GstBuffer* ownedBuffer, std::string camera,
                         std::shared_ptr<const StreamSetup> streamSetup = nullptr)
      : GstPipelineCbElement(id, ownedBuffer, camera), cameraName(std::move(camera)), setup(std::move(streamSetup)) {}

  const std::string cameraName;
  /// What a decoder has to know before it; null while the encoder has not told, and for a plain byte stream that brings
  /// it along.
  const std::shared_ptr<const StreamSetup> setup;
};

/// One raw I420 preview frame.
class PreviewPipelineCbElement final : public GstUtil::GstPipelineCbElement {
 public:
  using GstPipelineCbElement::GstPipelineCbElement;
};

}  // namespace Tavi::Video
