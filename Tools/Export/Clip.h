// The pictures of an event's clip, as the encoder made them.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace Tavi::EventTools {

/// One access unit of H.264.
struct ClipFrame {
  /// Counted from 0.
  std::size_t index = 0;
  /// Behind the clip's begin, as its file has it; 0 in a stream, which has no times.
  double seconds = 0.0;
  /// A byte stream (Rec. ITU-T H.264, annex B), in a clip with the parameter sets before each key frame. Borrowed for
  /// the call.
  std::string_view bytes;
};

/// An MP4 file, or a bare H.264 stream as it is there in place of one.
enum class ClipForm { Mp4, Stream };

/// Hands the frames of `path` to `take`, in their order. Returns what is wrong with the file, behind whose last whole
/// frame it ends; empty when nothing is. Blocks on the disk; of the file no more is in memory than a frame.
std::string ReadClip(const std::string& path, ClipForm form, const std::function<void(const ClipFrame&)>& take);

}  // namespace Tavi::EventTools
