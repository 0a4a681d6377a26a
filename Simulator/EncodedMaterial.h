// Material to record: H.264 access units and MP3 frames.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Tavi::Simulator {

using AccessUnitBytes = std::vector<std::uint8_t>;

/// `frames` access units of a moving picture, each a byte stream of its own: an IDR picture with parameter sets every
/// `gop` frames, no B-frames. `options` are the encoder's own, "name=value" joined by ":".
std::vector<AccessUnitBytes> EncodeH264(int width, int height, int fps, int gop, int frames,
                                        const std::string& options = "");
/// `seconds` of a tone as MP3 frames, 44,100 Hz mono.
std::vector<std::uint8_t> EncodeMp3(double seconds);
/// The units one behind the other.
std::vector<std::uint8_t> Join(const std::vector<AccessUnitBytes>& units);
void WriteBytes(const std::string& path, const std::vector<std::uint8_t>& bytes);

}  // namespace Tavi::Simulator
