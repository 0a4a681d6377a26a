// What browsers are sent of the live streams.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

namespace Tavi::Web {

/// The first byte of a message.
enum class MessageKind : std::uint8_t {
  Json = 0,
  Camera0Init = 1,
  Camera0Fragment = 2,
  Camera1Init = 3,
  Camera1Fragment = 4,
  SoundInit = 5,
  SoundFragment = 6,
};

/// Camera 0, camera 1, sound.
inline constexpr std::size_t MediaStreams = 3;
inline constexpr std::size_t SoundIndex = 2;

/// Of anything but JSON: which of MediaStreams it belongs to, and whether it is an init segment.
constexpr std::size_t GetStreamIndex(MessageKind kind) {
  return (static_cast<std::size_t>(kind) - 1) / 2;
}
constexpr bool IsInit(MessageKind kind) {
  return static_cast<unsigned>(kind) % 2 == 1;
}

/// One message, the same object for all viewers. Immutable once it is shared.
struct LiveMessage {
  /// Kind, four bytes of length with the highest first, payload: as it goes to the browser.
  std::vector<std::uint8_t> bytes;
  MessageKind kind = MessageKind::Json;
  /// Of a fragment: a decoder can start here.
  bool isKeyFrame = false;
  /// Of a fragment: its number within its stream, counted from 0 without a gap.
  std::uint64_t number = 0;
};

using MessagePtr = std::shared_ptr<const LiveMessage>;

/// Bytes before a message's payload.
inline constexpr std::size_t MessageHeaderBytes = 5;

MessagePtr MakeJson(std::string_view text);
/// `codec` is what the browser is asked for, such as "avc1.42C01F", for sound "audio/mpeg"; at most 255 bytes.
MessagePtr MakeInit(MessageKind kind, std::string_view codec, std::span<const std::uint8_t> segment);
MessagePtr MakeFragment(MessageKind kind, std::span<const std::uint8_t> fragment, bool isKeyFrame,
                        std::uint64_t number);

}  // namespace Tavi::Web
