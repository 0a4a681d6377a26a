// The element "imxvpuenc_h264": I420 to an H.264 byte stream with an exact grid of IDR frames.
#pragma once

#include <glib-object.h>

namespace SoftImx {

/// A bin around x264enc. Each frame in gives one access unit out at once, with the frame's own time stamp; SPS and PPS
/// stand before every IDR frame.
///
/// "bitrate" may change while it runs; the intervals count from the next NULL to READY. All threads are upstream's.
[[nodiscard]] GType VideoEncoderType();

}  // namespace SoftImx
