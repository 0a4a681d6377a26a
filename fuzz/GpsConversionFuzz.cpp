// Two texts, one a line, through each conversion, against the C library's where they are well-formed.
#include <cmath>
#include <cstdlib>

#include "Support/Nmea.h"
#include "Tavi/Gps/GPSDataPackage.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  return setenv("TZ", "UTC", 1);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Tavi::Gps::GPSDataPackage package;
  const std::string text = std::string(reinterpret_cast<const char*>(data), size).c_str();
  const std::string first = text.substr(0, text.find('\n')),
                    second = text.substr(std::min(first.size() + 1, text.size()));

  const double coordinate = package.ConvertCoordinate(first, second);
  const std::size_t point = first.find('.');
  if (coordinate != 0.0) {
    const double minutes = std::atof(first.c_str() + point - 2) / 60.0;
    const double expected = std::atof(first.substr(0, point - 2).c_str()) + minutes;
    if (coordinate != (second == "S" || second == "W" ? -expected : expected)) __builtin_trap();
  }
  tm fields{};
  const time_t seconds = package.ConvertDateTime(first, second);
  if (seconds != -1) {
    std::sscanf(first.c_str(), "%2d%2d%2d", &fields.tm_mday, &fields.tm_mon, &fields.tm_year);
    std::sscanf(second.c_str(), "%2d%2d%2d", &fields.tm_hour, &fields.tm_min, &fields.tm_sec);
    --fields.tm_mon, fields.tm_year += 100;
    if (seconds != timegm(&fields)) __builtin_trap();
  }
  if (first.find_first_of(",*$\r") != std::string::npos) return 0;
  package.Load(Tavi::Gps::GPSLine(MakeSentence("GPRMC,000000,A,,,,," + first + ",,010120").data()));
  const double speed = package.GetData()->isValidPackage == 0 ? 0.0 : std::atof(first.c_str());
  if (package.GetData()->speed != speed) __builtin_trap();
  return 0;
}
