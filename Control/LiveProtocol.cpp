// What follows the reply to "live": records, each a header of fixed size and its payload.
#include "Control/LiveProtocol.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>

namespace Tavi::Recorder {
namespace {

constexpr std::array<std::uint8_t, 4> Magic{'T', 'V', 'L', '1'};
constexpr std::size_t StreamAt = 4;
constexpr std::size_t FlagsAt = 5;
constexpr std::size_t PayloadBytesAt = 8;
constexpr std::size_t ArrivedAt = 16;
constexpr std::size_t TimestampAt = 24;
constexpr unsigned int KeyFrameFlag = 1U << 0U;
constexpr unsigned int AfterGapFlag = 1U << 1U;
constexpr std::int64_t NoTimestamp = std::numeric_limits<std::int64_t>::min();

void Put(std::uint64_t value, std::size_t at, std::size_t size, LiveHeaderBuffer& bytes) {
  for (std::size_t i = 0; i < size; ++i) bytes.at(at + i) = static_cast<std::uint8_t>(value >> (8U * i));
}

std::uint64_t Get(const LiveHeaderBuffer& bytes, std::size_t at, std::size_t size) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < size; ++i) value |= std::uint64_t{bytes.at(at + i)} << (8U * i);
  return value;
}

}  // namespace

LiveHeaderBuffer EncodeLiveHeader(const LiveHeader& header) {
  LiveHeaderBuffer bytes{};
  std::copy(Magic.begin(), Magic.end(), bytes.begin());
  bytes[StreamAt] = header.stream;
  bytes[FlagsAt] =
      static_cast<std::uint8_t>((header.isKeyFrame ? KeyFrameFlag : 0U) | (header.isAfterGap ? AfterGapFlag : 0U));
  Put(header.payloadBytes, PayloadBytesAt, sizeof(header.payloadBytes), bytes);
  Put(static_cast<std::uint64_t>(header.arrivedNs), ArrivedAt, sizeof(header.arrivedNs), bytes);
  Put(static_cast<std::uint64_t>(header.timestampNs.value_or(NoTimestamp)), TimestampAt, sizeof(NoTimestamp), bytes);
  return bytes;
}

std::optional<LiveHeader> DecodeLiveHeader(const LiveHeaderBuffer& bytes, std::string& problem) {
  if (!std::equal(Magic.begin(), Magic.end(), bytes.begin())) {
    problem = "what came is no live stream: a record begins with TVL1";
    return std::nullopt;
  }
  LiveHeader header;
  header.stream = bytes[StreamAt];
  header.isKeyFrame = (bytes[FlagsAt] & KeyFrameFlag) != 0;
  header.isAfterGap = (bytes[FlagsAt] & AfterGapFlag) != 0;
  header.payloadBytes = static_cast<std::uint32_t>(Get(bytes, PayloadBytesAt, sizeof(header.payloadBytes)));
  header.arrivedNs = static_cast<std::int64_t>(Get(bytes, ArrivedAt, sizeof(header.arrivedNs)));
  const auto timestamp = static_cast<std::int64_t>(Get(bytes, TimestampAt, sizeof(NoTimestamp)));
  if (timestamp != NoTimestamp) header.timestampNs = timestamp;
  if (header.payloadBytes <= MaxLivePayloadBytes) return header;
  problem = fmt::format("a record of {} bytes was announced, and {} is the most there can be", header.payloadBytes,
                        MaxLivePayloadBytes);
  return std::nullopt;
}

}  // namespace Tavi::Recorder
