// Splitting an H.264 byte stream (Rec. ITU-T H.264, annex B) into NAL units and access units.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace KMedia::H264 {

using Bytes = std::span<const std::uint8_t>;

/// Types of NAL units (Rec. ITU-T H.264, table 7-1).
enum class NalType : std::uint8_t {
  Slice = 1,
  IdrSlice = 5,
  Sei = 6,
  Sps = 7,
  Pps = 8,
  AccessUnitDelimiter = 9,
  PrefixNal = 14,
  ReservedLast = 18,
};

/// One NAL unit within a stream.
struct NalUnit {
  NalType type{};
  /// With its start code.
  Bytes whole;
  /// Behind the start code, at least one byte: the header.
  Bytes payload;
};

/// One access unit: everything that makes one picture.
struct AccessUnit {
  Bytes bytes;
  /// A decoder can start here.
  bool isIdr = false;
};

/// The access units of a stream in order, from the first IDR picture on that has parameter sets before it, and these.
struct AccessUnits {
  std::vector<AccessUnit> units;
  /// Access units before the first of them, which no decoder can begin with.
  std::size_t leadingUnits = 0;
  /// Each with its start code, one behind the other, as decoders and muxers take them.
  std::vector<std::uint8_t> parameterSets;
  /// Bytes at the end that make no picture: a start code, or parameter sets without a slice.
  std::size_t trailingBytes = 0;
};

/// The next NAL unit of `stream` from `offset` on, which moves behind it. False at the end. Safe on any bytes.
bool NextNalUnit(Bytes stream, std::size_t& offset, NalUnit& unit);

/// Safe on any bytes; what is no H.264 has no units. The spans point into `stream`.
AccessUnits SplitAccessUnits(Bytes stream);

}  // namespace KMedia::H264
