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
  /// Capture size in pixels, even numbers. A source that has properties for it is asked for pictures of this size, and
  /// everything behind it follows; one that has none delivers what it does. With `cropEnabled` it counts for nothing:
  /// what is cut away is stated in pixels of a 1280x720 picture.
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
  /// Which encoder the software element is to use, by its own names (Platform/SoftImx: auto, v4l2, vaapi, x264,
  /// openh264); an element that has no choice is left alone.
  std::string encoder = "auto";
};

}  // namespace Tavi::Video
