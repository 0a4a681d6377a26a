// A message in the wire format of Protocol Buffers.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace Tavi::Mcap {

/// Appends one field after the other, in the encoding of https://protobuf.dev/programming-guides/encoding. Fields are
/// given by their numbers; what they are is the schema's business. A value.
class ProtoMessage {
 public:
  /// int32, int64, uint32, enum: ten bytes where it is negative.
  ProtoMessage& AddInteger(int field, std::int64_t value);
  ProtoMessage& AddDouble(int field, double value);
  /// A repeated double, in one piece.
  ProtoMessage& AddDoubles(int field, std::span<const double> values);
  /// string, bytes.
  ProtoMessage& AddBytes(int field, std::string_view bytes);
  ProtoMessage& AddMessage(int field, const ProtoMessage& message) { return AddBytes(field, message.m_bytes); }
  /// The fields of another one behind those that are there.
  ProtoMessage& Append(const ProtoMessage& fields) {
    m_bytes += fields.m_bytes;
    return *this;
  }
  /// google.protobuf.Timestamp: seconds (1) and nanoseconds (2) since 1970 in UTC.
  ProtoMessage& AddTimestamp(int field, std::uint64_t unixNs);

  [[nodiscard]] const std::string& Get() const { return m_bytes; }
  [[nodiscard]] std::string Take() { return std::move(m_bytes); }

 private:
  enum class Wire : std::uint8_t { Varint = 0, Fixed64 = 1, Bytes = 2 };
  void AddKey(int field, Wire wire);
  void AddVarint(std::uint64_t value);
  void AddFixed64(double value);

  std::string m_bytes;
};

}  // namespace Tavi::Mcap
