// One NMEA 0183 sentence: checked, split and classified.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace Tavi::Gps {

/// Sentences that the fix record is made of. The numbers are fixed; 6 is not in use.
enum GPSLineType : std::int32_t {
  GPS_LINE_UNKNOWN = 0,
  GPS_LINE_GPRMC = 1,
  GPS_LINE_GNRMC = 2,
  GPS_LINE_GPGGA = 3,
  GPS_LINE_GNGGA = 4,
  GPS_LINE_GPGSA = 5,
  GPS_LINE_GPGSV = 7,
};

/// A value: it owns its texts. Fields that fit a string's own buffer, as all that receivers are known to send, cost no
/// allocation; copies touch only the slots in use.
class GPSLine {
 public:
  /// Fields kept of a sentence, far more than are read: GGA, the longest of those, has 15. Those behind are dropped.
  static constexpr int MaxElements = 30;

  GPSLine() = default;
  /// Reads a NUL-terminated sentence, which stays as it is; one that is not in order leaves `m_isValid` at 0 and
  /// everything else empty. Null counts as such.
  GPSLine(char* line);
  GPSLine(const GPSLine& other);
  GPSLine& operator=(const GPSLine& other);
  ~GPSLine() = default;

  /// A `GPSLineType`.
  int GetLineType() const { return m_lineType; }
  /// Field `n`, 0 being talker and sentence without the "$". Empty when the sentence has no such field.
  std::string GetLineElementByNumber(int n) const { return std::string(ViewElement(n)); }
  /// The whole sentence without its line end, from "$" to checksum.
  std::string GetLineString() const { return m_line; }
  /// The same two without a copy; valid as long as this line and what it holds.
  std::string_view ViewElement(int n) const;
  std::string_view ViewLine() const { return m_line; }

  /// True when the two hexadecimal digits after the first "*" are the exclusive or of what lies between the first "$"
  /// and that "*". Digits that cannot be read stand for 0.
  bool CheckSum(char* line) const;
  /// Replaces the fields by those of `line`, those beyond the last slot being dropped. 0 when memory ran out, else 1.
  int SplitLine(char* line);
  /// The `GPSLineType` of field 0.
  int CheckLineType() const;

  /// 1 when the sentence was in order, of whichever type.
  std::int32_t m_isValid = 0;

 private:
  GPSLineType m_lineType = GPS_LINE_UNKNOWN;
  std::string m_line;
  std::array<std::string, MaxElements> m_elements;
  /// Slots that the sentence filled; those behind it are empty.
  std::size_t m_used = 0;
};

}  // namespace Tavi::Gps
