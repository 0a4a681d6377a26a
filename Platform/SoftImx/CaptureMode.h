// Which of a capture device's modes serves best.
#pragma once

#include <gst/gst.h>

#include <optional>
#include <string>

namespace SoftImx {

/// How a mode's pictures come out of the device.
enum class Coding { Raw, Jpeg, H264 };

/// A size in pixels and a rate in frames a second.
struct PictureRate {
  int width = 0;
  int height = 0;
  int rateNumerator = 0;
  int rateDenominator = 1;

  bool operator==(const PictureRate&) const = default;
};

struct CaptureMode {
  Coding coding = Coding::Raw;
  /// GStreamer's name of the pixel format; empty unless raw.
  std::string format;
  PictureRate picture;
};

/// What can be made of codings besides raw pictures.
struct Abilities {
  /// There is a decoder.
  bool jpeg = false;
  bool h264 = false;
  /// A camera's own H.264 may be recorded as it is.
  bool ownH264 = false;
};

/// The best of the modes in `offered`, a device's caps: the one with most of the asked pixels a second. Among equals
/// come H.264 in exactly the asked size and rate, which may be recorded as it is, raw colour, JPEG, other H.264 and
/// grey, then the mode with the least to throw away. Nothing when the device offers no such mode.
[[nodiscard]] std::optional<CaptureMode> ChooseMode(const GstCaps* offered, const PictureRate& asked,
                                                    Abilities abilities);

/// New caps that hold a device to the mode.
[[nodiscard]] GstCaps* ToCaps(const CaptureMode& mode);

/// Such as "MJPEG 1280x720 at 30 frames/s".
[[nodiscard]] std::string Describe(const CaptureMode& mode);
[[nodiscard]] std::string Describe(const PictureRate& picture);

}  // namespace SoftImx
