// Lines with their checksums put right, as one epoch: whatever they say, the record holds what its readers rely on.
#include <cmath>
#include <cstring>
#include <sstream>

#include "Support/Nmea.h"
#include "Tavi/Gps/GPSDataPackage.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::istringstream text(std::string(reinterpret_cast<const char*>(data), size));
  Tavi::Gps::GPSDataPackage package;
  Tavi::Gps::GPSLine line;
  for (std::string body; std::getline(text, body);) {
    body.erase(0, body.starts_with('$') ? 1 : 0);
    line = Tavi::Gps::GPSLine(MakeSentence(body.substr(0, body.find('*'))).data());
    package.AddLine(line);
  }
  package.PostProcess();
  const auto record = package.ReleaseData();
  package.AddLine(line);
  const auto& [isValid, seconds, speed, course, latitude, longitude, satellites, altitude, hdop, pdop, vdop, stops,
               moves, fast, slow, highest, distance, date, time, lat, north, lon, east, rmc] = *record;
  for (const double number : {speed, course, latitude, longitude, altitude, hdop, pdop, vdop, highest, distance}) {
    if (!std::isfinite(number)) __builtin_trap();
  }
  const auto isText = [](const auto& array) { return std::memchr(array, 0, sizeof(array)) != nullptr; };
  if (!isText(date) || !isText(time) || !isText(lat) || !isText(north) || !isText(lon) || !isText(east) || !isText(rmc))
    __builtin_trap();
  if (isValid > 1 || (isValid == 1 && hdop > 10)) __builtin_trap();
  return 0;
}
