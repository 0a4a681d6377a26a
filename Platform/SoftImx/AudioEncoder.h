// The element "imxmp3audioenc": sound to MP3 frames.
#pragma once

#include <glib-object.h>

namespace SoftImx {

/// A bin around lamemp3enc at the sound's own rate (32, 44.1 or 48 kHz) and a constant bit rate. Each buffer out is one
/// MP3 frame, with the time stamp at which its decoded sound belongs.
///
/// "bitrate" and "high-quality-mode" count from the next NULL to READY. All threads are upstream's.
[[nodiscard]] GType AudioEncoderType();

}  // namespace SoftImx
