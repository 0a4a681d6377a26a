// One NMEA 0183 sentence: checked, split and classified.
#include "Tavi/Gps/GPSLine.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace Tavi::Gps {
namespace {

struct Identifier {
  std::string_view text;
  GPSLineType type;
};

constexpr Identifier Identifiers[] = {
    {"GPRMC", GPS_LINE_GPRMC}, {"GNRMC", GPS_LINE_GNRMC}, {"GPGGA", GPS_LINE_GPGGA},
    {"GNGGA", GPS_LINE_GNGGA}, {"GPGSA", GPS_LINE_GPGSA}, {"GPGSV", GPS_LINE_GPGSV},
};

/// Value of a hexadecimal digit, -1 for any other character.
int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  const char lower = static_cast<char>(c | 0x20);
  return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

bool IsSpace(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

/// Reads as scanf's "%02x" does, which takes blanks and a sign too: the sign is one of the two characters.
unsigned int ReadHexPair(const char* text) {
  while (IsSpace(*text)) ++text;
  const bool isNegative = *text == '-';
  unsigned int value = 0;
  for (int i = *text == '-' || *text == '+' ? 1 : 0; i < 2 && HexDigit(text[i]) >= 0; ++i) {
    value = value * 16 + static_cast<unsigned int>(HexDigit(text[i]));
  }
  return isNegative ? 0U - value : value;
}

/// Eight bytes at a time: a machine word's bytes do not mind in which order they meet.
unsigned int ExclusiveOr(std::string_view text) {
  std::uint64_t sum = 0;
  for (; text.size() >= sizeof(sum); text.remove_prefix(sizeof(sum))) {
    std::uint64_t word = 0;
    std::memcpy(&word, text.data(), sizeof(word));
    sum ^= word;
  }
  for (unsigned int half = 32; half >= 8; half /= 2) sum ^= sum >> half;
  for (const char c : text) sum ^= static_cast<unsigned char>(c);
  return static_cast<unsigned int>(sum & 0xFFU);
}

/// What the fields are made of: from behind the first "$" to the first "*" behind it, or everything.
std::string_view GetFields(std::string_view line) {
  const auto start = line.find('$');
  if (start == std::string_view::npos) return line;
  line.remove_prefix(start + 1);
  return line.substr(0, line.find('*'));
}

bool IsLineEnd(char c) {
  return c == '\r' || c == '\n';
}

}  // namespace

GPSLine::GPSLine(char* line) {
  if (!CheckSum(line) || SplitLine(line) == 0) return;
  std::string_view text = line;
  while (IsLineEnd(text.back())) text.remove_suffix(1);
  m_line = text;
  if (m_line.find('\r') != std::string::npos || m_line.find('\n') != std::string::npos)
    std::erase_if(m_line, IsLineEnd);
  m_isValid = 1;
  m_lineType = static_cast<GPSLineType>(CheckLineType());
}

GPSLine::GPSLine(const GPSLine& other)
    : m_isValid(other.m_isValid), m_lineType(other.m_lineType), m_line(other.m_line), m_used(other.m_used) {
  std::copy_n(other.m_elements.begin(), m_used, m_elements.begin());
}

GPSLine& GPSLine::operator=(const GPSLine& other) {
  m_isValid = other.m_isValid;
  m_lineType = other.m_lineType;
  m_line = other.m_line;
  std::copy_n(other.m_elements.begin(), std::max(m_used, other.m_used), m_elements.begin());
  m_used = other.m_used;
  return *this;
}

std::string_view GPSLine::ViewElement(int n) const {
  return n >= 0 && n < MaxElements ? std::string_view(m_elements[static_cast<std::size_t>(n)]) : std::string_view();
}

bool GPSLine::CheckSum(char* line) const {
  const char* const start = line == nullptr ? nullptr : std::strchr(line, '$');
  const char* const star = start == nullptr ? nullptr : std::strchr(line, '*');
  if (star == nullptr) return false;
  const std::string_view covered = star > start ? std::string_view(start + 1, star) : std::string_view();
  return ReadHexPair(star + 1) == ExclusiveOr(covered);
}

int GPSLine::SplitLine(char* line) {
  try {
    const std::string_view fields = GetFields(line);
    const char* const end = fields.data() + fields.size();
    std::size_t used = 0;
    // Fields have a few characters each: a call to find the next comma would take longer than looking at them.
    for (const char* field = fields.data(); field <= end && used < m_elements.size(); ++used) {
      const char* comma = field;
      while (comma != end && *comma != ',') ++comma;
      m_elements[used].assign(field, static_cast<std::size_t>(comma - field));
      field = comma + 1;
    }
    for (std::size_t i = used; i < m_used; ++i) m_elements[i].clear();
    m_used = used;
    return 1;
  } catch (...) {
    return 0;
  }
}

int GPSLine::CheckLineType() const {
  const auto found = std::find_if(std::begin(Identifiers), std::end(Identifiers),
                                  [this](const Identifier& known) { return known.text == m_elements[0]; });
  return found == std::end(Identifiers) ? GPS_LINE_UNKNOWN : found->type;
}

}  // namespace Tavi::Gps
