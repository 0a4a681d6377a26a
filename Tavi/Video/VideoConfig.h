// Settings of one camera.
#pragma once

#include <cstdint>
#include <string>

#include "Tavi/PipelineCollect/CameraType.h"

namespace Tavi::Video {

struct VideoConfig {
  CameraType cameraType = CameraType::Camera1;
  /// V4L2 capture device.
  std::string device = "/dev/video0";
  /// Pixels that the device is known to deliver. It is not asked for them: they count only for a raw frame that is
  /// pulled before the stream has told its own size.
  std::int32_t width = 1280;
  std::int32_t height = 720;
  /// Frames per second; also the number of frames from one IDR frame to the next.
  std::int32_t fps = 30;
  /// H.264 bit rate in kbit/s.
  std::int32_t bitrate = 3072;
  /// Serve the encoded stream live, GDP-framed, on TCP port `streamPort` of every interface, to anybody who connects.
  bool streamEnabled = false;
  std::int32_t streamPort = 9000;
  /// Keep `previewSeconds` of scaled raw frames, `previewFps` a second, for the preview clip.
  bool previewEnabled = true;
  std::int32_t previewWidth = 320;
  std::int32_t previewHeight = 176;
  std::int32_t previewFps = 3;
  std::int32_t previewSeconds = 6;
  /// Cut the frame's border away before anything else sees it.
  bool cropEnabled = false;
  /// Where the pipeline keeps going: this source missing for long is no reason to restart the unit.
  bool optional = false;
};

}  // namespace Tavi::Video
