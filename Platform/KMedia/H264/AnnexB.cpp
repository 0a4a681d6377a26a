// Splitting an H.264 byte stream into NAL units and access units.
#include "KMedia/H264/AnnexB.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace KMedia::H264 {
namespace {

constexpr std::size_t StartCodeSize = 3;
constexpr std::uint8_t NalTypeMask = 0x1F;
/// The first bit of a slice header is 1 exactly when first_mb_in_slice, an Exp-Golomb code, is 0 (clauses 7.3.3, 9.1).
constexpr std::uint8_t FirstSliceBit = 0x80;

/// Offset of the next 00 00 01 at or behind `from`; the stream's size when there is none.
std::size_t FindStartCode(Bytes stream, std::size_t from) {
  std::size_t at = from + StartCodeSize - 1;
  while (at < stream.size()) {
    const void* one = std::memchr(stream.data() + at, 1, stream.size() - at);
    if (one == nullptr) break;
    at = static_cast<std::size_t>(static_cast<const std::uint8_t*>(one) - stream.data());
    if (stream[at - 1] == 0 && stream[at - 2] == 0) return at - 2;
    ++at;
  }
  return stream.size();
}

bool IsSlice(const NalUnit& unit) {
  return unit.type == NalType::Slice || unit.type == NalType::IdrSlice;
}

/// True when `unit` cannot belong to an access unit that has slices already (clause 7.4.1.2.3).
bool OpensAccessUnit(const NalUnit& unit) {
  // A slice that was cut behind its first byte is taken for a picture of its own: it must not spoil the one before.
  if (IsSlice(unit)) return unit.payload.size() < 2 || (unit.payload[1] & FirstSliceBit) != 0;
  return (unit.type >= NalType::Sei && unit.type <= NalType::AccessUnitDelimiter) ||
         (unit.type >= NalType::PrefixNal && unit.type <= NalType::ReservedLast);
}

/// Gathers NAL units into access units.
class Gatherer {
 public:
  explicit Gatherer(Bytes stream) : m_stream(stream) {}

  void Take(const NalUnit& unit) {
    const auto begin = static_cast<std::size_t>(unit.whole.data() - m_stream.data());
    if (m_hasSlice && OpensAccessUnit(unit)) Close(begin);
    if (IsSlice(unit) && unit.payload.size() > 1) {
      m_hasSlice = true;
      m_isIdr = m_isIdr || unit.type == NalType::IdrSlice;
    }
    if (m_found.units.empty() && (unit.type == NalType::Sps || unit.type == NalType::Pps)) KeepParameterSet(unit);
  }

  AccessUnits Finish() {
    if (m_hasSlice) Close(m_stream.size());
    m_found.trailingBytes = m_stream.size() - m_begin;
    return std::move(m_found);
  }

 private:
  void KeepParameterSet(const NalUnit& unit) {
    auto& sets = m_found.parameterSets;
    // A stream that starts within a group repeats them before its first IDR picture.
    if (std::search(sets.begin(), sets.end(), unit.payload.begin(), unit.payload.end()) != sets.end()) return;
    sets.insert(sets.end(), {0, 0, 0, 1});
    sets.insert(sets.end(), unit.payload.begin(), unit.payload.end());
  }

  void Close(std::size_t end) {
    // Without parameter sets not even an IDR picture can be decoded.
    const bool canStart = m_isIdr && !m_found.parameterSets.empty();
    if (canStart || !m_found.units.empty()) {
      m_found.units.push_back({m_stream.subspan(m_begin, end - m_begin), m_isIdr});
    } else {
      ++m_found.leadingUnits;
    }
    m_begin = end;
    m_hasSlice = false;
    m_isIdr = false;
  }

  const Bytes m_stream;
  AccessUnits m_found;
  std::size_t m_begin = 0;
  bool m_hasSlice = false;
  bool m_isIdr = false;
};

}  // namespace

bool NextNalUnit(Bytes stream, std::size_t& offset, NalUnit& unit) {
  while (true) {
    std::size_t begin = FindStartCode(stream, offset);
    const std::size_t payload = begin + StartCodeSize;
    if (payload >= stream.size()) return false;
    // A fourth byte, a 0 before the start code, belongs to it.
    if (begin > offset && stream[begin - 1] == 0) --begin;
    std::size_t end = FindStartCode(stream, payload);
    if (end < stream.size() && end > payload && stream[end - 1] == 0) --end;
    offset = end;
    if (end == payload) continue;
    unit.type = static_cast<NalType>(stream[payload] & NalTypeMask);
    unit.whole = stream.subspan(begin, end - begin);
    unit.payload = stream.subspan(payload, end - payload);
    return true;
  }
}

AccessUnits SplitAccessUnits(Bytes stream) {
  Gatherer gatherer(stream);
  NalUnit unit;
  for (std::size_t offset = 0; NextNalUnit(stream, offset, unit);) gatherer.Take(unit);
  return gatherer.Finish();
}

}  // namespace KMedia::H264
