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

/// One message, the same object for all viewers. Immutable once it is shared.
struct LiveMessage {
  /// Kind, four bytes of length with the highest first, payload: as it goes to the browser.
  std::vector<std::uint8_t> bytes;
  MessageKind kind = MessageKind::Json;
  /// Of a camera's fragment: a decoder can start here.
  bool isKeyFrame = false;
  /// Of a fragment: its number within its stream, counted from 0 without a gap.
  std::uint64_t number = 0;
};

using MessagePtr = std::shared_ptr<const LiveMessage>;

/// Bytes before a message's payload.
inline constexpr std::size_t MessageHeaderBytes = 5;

MessagePtr MakeJson(std::string_view text);
/// `codec` is what the browser is asked for, such as "avc1.42C01F", at most 255 bytes.
MessagePtr MakeInit(MessageKind kind, std::string_view codec, std::span<const std::uint8_t> segment);
MessagePtr MakeFragment(MessageKind kind, std::span<const std::uint8_t> fragment, bool isKeyFrame,
                        std::uint64_t number);

}  // namespace Tavi::Web
