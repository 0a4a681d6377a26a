// What follows the reply to "live": records, each a header of fixed size and its payload.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace Tavi::Recorder {

inline constexpr std::size_t LiveHeaderBytes = 32;
/// What a payload may have at most: an access unit of a camera's highest bit rate has a small part of that.
inline constexpr std::size_t MaxLivePayloadBytes = 8U * 1024 * 1024;
/// Each is served from the rings' own memory, but by one thread.
inline constexpr std::size_t MaxLiveClients = 4;

/// The sources in the order in which they are listed when nobody asks for some of them.
inline constexpr std::array<const char*, 6> LiveStreamNames{"camera0", "camera1", "audio", "gps", "acc", "other"};

/// Little-endian on the wire, the bytes in parentheses: "TVL1" (0-3), stream (4), flags (5: bit 0 for isKeyFrame, bit 1
/// for isAfterGap), zero (6-7), payloadBytes (8-11), zero (12-15), arrivedNs (16-23), timestampNs (24-31; the lowest
/// number there is stands for none).
struct LiveHeader {
  /// Index into "streams" of the reply.
  std::uint8_t stream = 0;
  /// A decoder can begin here. True of every record that is no video.
  bool isKeyFrame = false;
  /// Records of this stream before it were left out for this client, or were never delivered.
  bool isAfterGap = false;
  std::uint32_t payloadBytes = 0;
  /// When the source delivered it, by the recorder's steady clock; "steadyNs" of the reply is on the same.
  std::int64_t arrivedNs = 0;
  /// The source's own time stamp, if it has one; it may begin anew when the source does.
  std::optional<std::int64_t> timestampNs;
};

using LiveHeaderBuffer = std::array<std::uint8_t, LiveHeaderBytes>;

LiveHeaderBuffer EncodeLiveHeader(const LiveHeader& header);

/// Empty, with one sentence in `problem`, for bytes that are no header or tell of a payload longer than there are.
/// Flags and zeros that a later recorder may have given a meaning are passed over.
std::optional<LiveHeader> DecodeLiveHeader(const LiveHeaderBuffer& bytes, std::string& problem);

}  // namespace Tavi::Recorder
