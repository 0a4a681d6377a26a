// How much FFmpeg's decoders and parsers may say.
#pragma once

namespace KMedia::H264 {

/// Moves their complaints beyond every log level, whose upper bits are flags; this library has one line of its own for
/// each failure.
inline constexpr int SilentLogOffset = 100;

}  // namespace KMedia::H264
