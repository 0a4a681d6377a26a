// The element "imxvpuenc_h264": I420 to an H.264 byte stream with an exact grid of IDR frames.
#pragma once

#include <glib-object.h>

namespace SoftImx {

/// A bin around one of the machine's encoders (EncoderKind), which it builds from NULL to READY; back in NULL it is
/// empty again. Each frame in gives one access unit out, in software at once, with the frame's own time stamp; SPS and
/// PPS stand before every IDR frame. A frame that bears its camera's own access unit (AccessUnit.h) is not encoded
/// again.
///
/// "bitrate" may change while it runs; the encoder and the intervals count from the next NULL to READY. All threads are
/// upstream's.
[[nodiscard]] GType VideoEncoderType();

}  // namespace SoftImx
