// Splitting an MP3 file into its frames.
#include "KMedia/Mp3/Mp3Frames.h"

#include <array>
#include <cstring>
#include <optional>

namespace KMedia::Mp3 {
namespace {

constexpr std::size_t HeaderSize = 4;
constexpr std::size_t Id3HeaderSize = 10;
constexpr unsigned int Mono = 3;

/// What a frame header says (ISO/IEC 11172-3, clause 2.4.2.3).
struct Header {
  int sampleRate;
  int channels;
  int bitRate;
  int samplesPerFrame;
  std::size_t size;
};

/// kbit/s by bit rate index, layer III: MPEG-1, then the low sample rates of MPEG-2 and 2.5.
constexpr std::array<std::array<int, 15>, 2> BitRates{{
    {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320},
    {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160},
}};
constexpr std::array<int, 3> SampleRates{44100, 48000, 32000};

std::optional<Header> ReadHeader(std::span<const std::uint8_t> bytes) {
  if (bytes.size() < HeaderSize || bytes[0] != 0xFF || (bytes[1] & 0xE0U) != 0xE0U) return std::nullopt;
  const unsigned int version = (bytes[1] >> 3U) & 3U;  // 3: MPEG-1, 2: MPEG-2, 0: MPEG-2.5
  const unsigned int layer = (bytes[1] >> 1U) & 3U;    // 1: layer III
  const unsigned int bitRateIndex = bytes[2] >> 4U;
  const unsigned int rateIndex = (bytes[2] >> 2U) & 3U;
  if (version == 1 || layer != 1 || bitRateIndex == 0 || bitRateIndex == 15 || rateIndex == 3) return std::nullopt;
  Header header{};
  header.sampleRate = SampleRates[rateIndex] >> (version == 3 ? 0 : version == 2 ? 1 : 2);
  header.channels = (bytes[3] >> 6U) == Mono ? 1 : 2;
  header.bitRate = BitRates[version == 3 ? 0 : 1][bitRateIndex] * 1000;
  header.samplesPerFrame = version == 3 ? 1152 : 576;
  const unsigned int padding = (bytes[2] >> 1U) & 1U;
  header.size = static_cast<std::size_t>(header.samplesPerFrame / 8 * header.bitRate / header.sampleRate) + padding;
  return header;
}

/// Size of an ID3v2 tag at the start, whose length is coded in four times seven bits; 0 without one.
std::size_t SizeOfTag(std::span<const std::uint8_t> stream) {
  if (stream.size() < Id3HeaderSize || std::memcmp(stream.data(), "ID3", 3) != 0) return 0;
  std::size_t size = 0;
  for (std::size_t i = 6; i < Id3HeaderSize; ++i) size = (size << 7U) | (stream[i] & 0x7FU);
  return Id3HeaderSize + size;
}

/// True for the frame in which encoders note the stream's length: a tag stands where the first frame's side information
/// ends, or 32 bytes behind the header. Its size is 32, 17 or 9 bytes by version and channels (clause 2.4.1.7).
bool IsInformation(const Header& header, std::span<const std::uint8_t> frame) {
  const bool mono = header.channels == 1;
  const std::size_t sideInformation = header.samplesPerFrame == 1152 ? (mono ? 17 : 32) : (mono ? 9 : 17);
  const auto holds = [frame](std::size_t at, const char* tag) {
    return frame.size() >= at + 4 && std::memcmp(frame.data() + at, tag, 4) == 0;
  };
  const std::size_t at = HeaderSize + sideInformation;
  return holds(at, "Xing") || holds(at, "Info") || holds(HeaderSize + 32, "VBRI");
}

}  // namespace

Mp3Frames SplitMp3Frames(std::span<const std::uint8_t> stream) {
  Mp3Frames found;
  std::size_t at = SizeOfTag(stream);
  while (at + HeaderSize <= stream.size()) {
    const auto header = ReadHeader(stream.subspan(at));
    const bool belongs = header && (found.frames.empty() ||
                                    (header->sampleRate == found.sampleRate && header->channels == found.channels));
    const std::size_t end = belongs ? at + header->size : 0;
    // A sync word by chance is followed by no second header. Once in step, a single frame (before a tag) counts too.
    const bool alone = found.frames.empty() && end + HeaderSize <= stream.size() && !ReadHeader(stream.subspan(end));
    if (!belongs || end > stream.size() || alone) {
      ++at;
      continue;
    }
    if (found.frames.empty() && IsInformation(*header, stream.subspan(at, header->size))) {
      at = end;
      continue;
    }
    if (found.frames.empty()) {
      found.sampleRate = header->sampleRate;
      found.channels = header->channels;
      found.bitRate = header->bitRate;
      found.samplesPerFrame = header->samplesPerFrame;
    }
    found.frames.push_back(stream.subspan(at, header->size));
    at = end;
  }
  return found;
}

}  // namespace KMedia::Mp3
