// A camera's own H.264 in the place of what an encoder would make of its frames.
#pragma once

#include <gst/gst.h>

namespace SoftImx {

/// Of a stream that a camera has encoded: which profile is the camera's choice.
inline constexpr const char* OwnStreamCaps = "video/x-h264, stream-format=(string)byte-stream, alignment=(string)au";

/// Tells downstream of `src` what comes in the place of the frames that arrive at `sink`.
void AnnounceOwnStream(GstPad* sink, GstPad* src);

/// Pushes the access unit that the frame bears, at the frame's time. Both are borrowed; there must be a unit.
[[nodiscard]] GstFlowReturn PushUnit(GstPad* src, GstBuffer* frame);

}  // namespace SoftImx
