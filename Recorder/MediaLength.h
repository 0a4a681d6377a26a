// How long a media file is.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace Tavi::Recorder {

struct MediaLength {
  /// As the container states it, else what its packets add up to.
  double seconds = 0.0;
  /// Frames of the picture, or of the sound where there is none.
  std::uint64_t frames = 0;
};

/// Empty when `path` is no media file. Reads a file without a table of contents, such as an MP3, to its end.
std::optional<MediaLength> ReadMediaLength(const std::string& path);

}  // namespace Tavi::Recorder
