// Splitting an MP3 file into its frames.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace KMedia::Mp3 {

/// The whole frames of one layer III stream (ISO/IEC 11172-3, 13818-3). The spans point into the input.
struct Mp3Frames {
  std::vector<std::span<const std::uint8_t>> frames;
  int sampleRate = 0;
  int channels = 0;
  int bitRate = 0;
  /// 1152, or 576 at the low sample rates.
  int samplesPerFrame = 0;
};

/// Safe on any bytes. Tags and garbage between frames are passed over; a cut frame at the end is left out, and so is an
/// encoder's information frame ("Xing", "Info" or "VBRI") at the start: it carries no sound. Frames whose sample rate
/// or channels differ from the first one's are no part of the stream.
Mp3Frames SplitMp3Frames(std::span<const std::uint8_t> stream);

}  // namespace KMedia::Mp3
