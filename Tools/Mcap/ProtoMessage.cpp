// A message in the wire format of Protocol Buffers.
#include "Tools/Mcap/ProtoMessage.h"

#include <bit>

namespace Tavi::Mcap {

ProtoMessage& ProtoMessage::AddInteger(int field, std::int64_t value) {
  AddKey(field, Wire::Varint);
  AddVarint(static_cast<std::uint64_t>(value));
  return *this;
}

ProtoMessage& ProtoMessage::AddDouble(int field, double value) {
  AddKey(field, Wire::Fixed64);
  AddFixed64(value);
  return *this;
}

ProtoMessage& ProtoMessage::AddDoubles(int field, std::span<const double> values) {
  AddKey(field, Wire::Bytes);
  AddVarint(values.size_bytes());
  for (const double value : values) AddFixed64(value);
  return *this;
}

ProtoMessage& ProtoMessage::AddBytes(int field, std::string_view bytes) {
  // With room for what follows: a string that grows doubles.
  constexpr std::size_t Rest = 128;
  m_bytes.reserve(m_bytes.size() + bytes.size() + Rest);
  AddKey(field, Wire::Bytes);
  AddVarint(bytes.size());
  m_bytes += bytes;
  return *this;
}

ProtoMessage& ProtoMessage::AddTimestamp(int field, std::uint64_t unixNs) {
  constexpr std::uint64_t NsPerSecond = 1'000'000'000;
  ProtoMessage timestamp;
  timestamp.AddInteger(1, static_cast<std::int64_t>(unixNs / NsPerSecond));
  timestamp.AddInteger(2, static_cast<std::int64_t>(unixNs % NsPerSecond));
  return AddMessage(field, timestamp);
}

void ProtoMessage::AddKey(int field, Wire wire) {
  AddVarint(static_cast<std::uint64_t>(field) << 3U | static_cast<std::uint64_t>(wire));
}

void ProtoMessage::AddVarint(std::uint64_t value) {
  for (; value >= 0x80; value >>= 7U) m_bytes += static_cast<char>((value & 0x7FU) | 0x80U);
  m_bytes += static_cast<char>(value);
}

void ProtoMessage::AddFixed64(double value) {
  const auto bits = std::bit_cast<std::uint64_t>(value);
  for (unsigned shift = 0; shift < 64; shift += 8) m_bytes += static_cast<char>(bits >> shift & 0xFFU);
}

}  // namespace Tavi::Mcap
