// The parts that the records of an MCAP file are made of.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

namespace Tavi::Mcap {

/// The bytes of one record's content: numbers with the least significant byte first, texts with their length before
/// them in 32 bits. A value.
class RecordBytes {
 public:
  template <std::unsigned_integral Number>
  RecordBytes& Add(Number number) {
    for (std::size_t i = 0; i < sizeof(Number); ++i) m_bytes += static_cast<char>(number >> (8 * i) & 0xFFU);
    return *this;
  }
  template <typename Enum>
  requires std::is_enum_v<Enum> RecordBytes& Add(Enum value) {
    return Add(static_cast<std::underlying_type_t<Enum>>(value));
  }
  RecordBytes& AddText(std::string_view text) { return Add(static_cast<std::uint32_t>(text.size())).AddRaw(text); }
  RecordBytes& AddRaw(std::string_view bytes) {
    m_bytes += bytes;
    return *this;
  }
  /// Another's content as an array or a map is stored: with its length in bytes.
  RecordBytes& AddList(const RecordBytes& content) { return AddText(content.Get()); }

  [[nodiscard]] std::string_view Get() const { return m_bytes; }
  [[nodiscard]] bool IsEmpty() const { return m_bytes.empty(); }
  void Clear() { m_bytes.clear(); }

 private:
  std::string m_bytes;
};

/// CRC-32 of IEEE 802.3, as MCAP uses it, over the pieces one behind the other.
std::uint32_t GetCrc32(std::string_view bytes, std::string_view more = {});

}  // namespace Tavi::Mcap
