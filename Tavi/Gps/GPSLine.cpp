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

unsigned int ExclusiveOr(const char* first, const char* last) {
  unsigned char sum = 0;
  for (; first < last; ++first) sum = static_cast<unsigned char>(sum ^ static_cast<unsigned char>(*first));
  return sum;
}

}  // namespace

GPSLine::GPSLine(char* line) {
  if (!CheckSum(line) || SplitLine(line) == 0) return;
  m_line = line;
  std::erase(m_line, '\r');
  std::erase(m_line, '\n');
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
  return star != nullptr && ReadHexPair(star + 1) == ExclusiveOr(start + 1, star);
}

int GPSLine::SplitLine(char* line) {
  try {
    std::string_view rest = line;
    if (const auto start = rest.find('$'); start != std::string_view::npos) {
      rest.remove_prefix(start + 1);
      rest = rest.substr(0, rest.find('*'));
    }
    std::size_t used = 0;
    for (bool isLast = false; !isLast && used < m_elements.size(); ++used) {
      const std::size_t comma = std::min(rest.find(','), rest.size());
      isLast = comma == rest.size();
      m_elements[used] = rest.substr(0, comma);
      if (!isLast) rest.remove_prefix(comma + 1);
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
