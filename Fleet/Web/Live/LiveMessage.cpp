// What browsers are sent of the live streams.
#include "Fleet/Web/Live/LiveMessage.h"

#include <cassert>

namespace Tavi::Web {
namespace {

constexpr int BitsPerByte = 8;

std::shared_ptr<LiveMessage> Begin(MessageKind kind, std::size_t payloadBytes) {
  auto message = std::make_shared<LiveMessage>();
  message->kind = kind;
  message->bytes.reserve(MessageHeaderBytes + payloadBytes);
  message->bytes.push_back(static_cast<std::uint8_t>(kind));
  for (int shift = 3 * BitsPerByte; shift >= 0; shift -= BitsPerByte) {
    message->bytes.push_back(static_cast<std::uint8_t>(payloadBytes >> shift));
  }
  return message;
}

}  // namespace

MessagePtr MakeJson(std::string_view text) {
  auto message = Begin(MessageKind::Json, text.size());
  message->bytes.insert(message->bytes.end(), text.begin(), text.end());
  return message;
}

MessagePtr MakeInit(MessageKind kind, std::string_view codec, std::span<const std::uint8_t> segment) {
  assert(codec.size() <= UINT8_MAX);
  auto message = Begin(kind, 1 + codec.size() + segment.size());
  message->bytes.push_back(static_cast<std::uint8_t>(codec.size()));
  message->bytes.insert(message->bytes.end(), codec.begin(), codec.end());
  message->bytes.insert(message->bytes.end(), segment.begin(), segment.end());
  return message;
}

MessagePtr MakeFragment(MessageKind kind, std::span<const std::uint8_t> fragment, bool isKeyFrame,
                        std::uint64_t number) {
  auto message = Begin(kind, fragment.size());
  message->bytes.insert(message->bytes.end(), fragment.begin(), fragment.end());
  message->isKeyFrame = isKeyFrame;
  message->number = number;
  return message;
}

}  // namespace Tavi::Web
