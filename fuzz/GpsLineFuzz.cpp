// Any text as a sentence, its checksum against scanf's reading and its fields against a splitter that takes its time.
#include <sstream>

#include "Support/Nmea.h"
#include "Tavi/Gps/GPSLine.h"

static bool IsSummedUp(const std::string& text) {
  const std::size_t start = text.find('$'), star = text.find('*');
  if (start == std::string::npos || star == std::string::npos) return false;
  unsigned int sum = 0, given = 0;
  for (std::size_t i = start + 1; i < star; ++i) sum ^= static_cast<unsigned char>(text[i]);
  std::sscanf(text.c_str() + star + 1, "%2x", &given);
  return given == sum;
}

static void Compare(std::string text) {
  const Tavi::Gps::GPSLine line(text.data());
  const Tavi::Gps::GPSLine copy(line);
  const bool isValid = IsSummedUp(text);
  text.erase(0, text.find('$') + 1);
  std::istringstream fields(isValid ? text.substr(0, text.find('*')) : std::string());
  for (int i = 0; i < 30; ++i) {
    std::string field;
    std::getline(fields, field, ',');
    if (copy.GetLineElementByNumber(i) != field || copy.m_isValid != (isValid ? 1 : 0)) __builtin_trap();
  }
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = std::string(reinterpret_cast<const char*>(data), size).c_str();
  Compare(text);
  Compare(MakeSentence(text));
  return 0;
}
