// The elements between a V4L2 device and the frames that the unit expects.
#pragma once

#include <gst/gst.h>

#include <string>

#include "SoftImx/CaptureMode.h"

namespace SoftImx {

struct CaptureSettings {
  std::string device = "/dev/video0";
  /// What frames are to be, whatever the device offers.
  PictureRate picture{1280, 720, 30, 1};
  int queueSize = 4;
  /// Asked of a camera that encodes, in kbit/s; 0 leaves it its own.
  int bitrateKbps = 0;
  /// Only a part of the frames will be recorded, so that no camera can have encoded it.
  bool isCropped = false;
};

/// New caps of the frames.
[[nodiscard]] GstCaps* FrameCaps(const PictureRate& picture);

/// Puts the elements for this device into the bin `self`, opens the device and holds it to its best mode, which an INFO
/// message tells. The last element; null, with an ERROR message, where an element is missing or the device cannot be
/// used.
[[nodiscard]] GstElement* BuildCapture(GstElement* self, const CaptureSettings& settings);

}  // namespace SoftImx
