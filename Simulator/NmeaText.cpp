// The sentences that a GPS receiver sends for a moment of the drive.
#include "Simulator/NmeaText.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <string_view>

namespace Tavi::Simulator {
namespace {

constexpr double KnotsPerMps = 3600.0 / 1852.0;
constexpr double AltitudeMetres = 519.4;
/// The geoid above the ellipsoid, as receivers have it from their table.
constexpr double GeoidMetres = 46.9;
constexpr std::string_view Dilution = "0.9";

struct Satellite {
  int number;
  int elevationDegrees;
  int azimuthDegrees;
  int signalDb;
};

constexpr Satellite Satellites[] = {{2, 61, 78, 44},   {5, 12, 48, 33},  {9, 21, 214, 36},
                                    {12, 44, 257, 41}, {17, 8, 186, 29}, {20, 35, 121, 39},
                                    {25, 73, 290, 46}, {29, 50, 60, 43}, {31, 17, 318, 34}};
constexpr int SatelliteCount = std::size(Satellites);
constexpr int SatellitesPerSentence = 4;

/// "$", the body, "*" and the exclusive or of the body's characters in hexadecimal (NMEA 0183, 5.3).
void Append(std::string& text, std::string_view body) {
  unsigned sum = 0;
  for (const char character : body) sum ^= static_cast<unsigned char>(character);
  text += fmt::format("${}*{:02X}\r\n", body, sum);
}

/// Degrees and decimal minutes with the hemisphere, "4807.0380,N". Rounded once, in ten-thousandths of a minute, or
/// 59.99999 would read 60.0000.
std::string Coordinate(double degrees, int digits, std::string_view hemispheres) {
  const auto units = std::llround(std::abs(degrees) * 600'000);
  return fmt::format("{:0{}}{:02}.{:04},{}", units / 600'000, digits, units % 600'000 / 10'000, units % 10'000,
                     hemispheres[degrees < 0 ? 1 : 0]);
}

std::string Position(const DriveState& state) {
  return Coordinate(state.latitude, 2, "NS") + "," + Coordinate(state.longitude, 3, "EW");
}

void AppendSatellites(std::string& text) {
  std::string used;
  for (const Satellite& satellite : Satellites) used += fmt::format("{:02},", satellite.number);
  Append(text, fmt::format("GPGSA,A,3,{}{:,>{}}1.6,{},1.3", used, "", 12 - SatelliteCount, Dilution));
  const int sentences = (SatelliteCount + SatellitesPerSentence - 1) / SatellitesPerSentence;
  for (int sentence = 0; sentence < sentences; ++sentence) {
    std::string body = fmt::format("GPGSV,{},{},{:02}", sentences, sentence + 1, SatelliteCount);
    const int first = sentence * SatellitesPerSentence;
    for (int i = first; i < std::min(first + SatellitesPerSentence, SatelliteCount); ++i) {
      const Satellite& s = Satellites[i];
      body += fmt::format(",{:02},{:02},{:03},{:02}", s.number, s.elevationDegrees, s.azimuthDegrees, s.signalDb);
    }
    Append(text, body);
  }
}

}  // namespace

std::string BuildNmeaEpoch(const DriveState& state, std::int64_t utcMs) {
  const std::time_t seconds = static_cast<std::time_t>(utcMs / 1000);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  const std::string time = fmt::format("{:02}{:02}{:02}.{:02}", utc.tm_hour, utc.tm_min, utc.tm_sec, utcMs % 1000 / 10);
  const std::string date = fmt::format("{:02}{:02}{:02}", utc.tm_mday, utc.tm_mon + 1, utc.tm_year % 100);
  const std::string position = Position(state);
  // 359.96 would round to 360.0.
  const double course = std::fmod(std::round(state.courseDegrees * 10) / 10, 360.0);

  std::string text;
  text.reserve(512);
  Append(text,
         fmt::format("GPRMC,{},A,{},{:.2f},{:.1f},{},,,A", time, position, state.speedMps * KnotsPerMps, course, date));
  Append(text, fmt::format("GPGGA,{},{},1,{:02},{},{:.1f},M,{:.1f},M,,", time, position, SatelliteCount, Dilution,
                           AltitudeMetres, GeoidMetres));
  AppendSatellites(text);
  return text;
}

}  // namespace Tavi::Simulator
