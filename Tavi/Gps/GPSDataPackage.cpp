// The sentences of one receiver epoch, gathered into one fix record.
#include "Tavi/Gps/GPSDataPackage.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <optional>
#include <string_view>

namespace Tavi::Gps {
namespace {

constexpr double MetresPerSecondPerKnot = 0.514444444;
constexpr double WorstDilution = 10.0;
constexpr std::size_t DateLength = sizeof("ddmmyy") - 1;
constexpr std::size_t ClockLength = sizeof("hhmmss") - 1;
constexpr std::size_t MaxTimeLength = sizeof("hhmmss.sss") - 1;
/// Longer than any receiver writes a number, and too short for one that a sum of a year's samples cannot hold.
constexpr std::size_t MaxNumberLength = 32;

/// Fields of an RMC sentence.
enum Rmc { RmcTime = 1, RmcStatus, RmcLatitude, RmcNorth, RmcLongitude, RmcEast, RmcSpeed, RmcCourse, RmcDate };
/// Fields of a GGA sentence.
enum Gga { GgaQuality = 6, GgaSatellites, GgaHdop, GgaAltitude };

/// Cuts `text` to what `target` holds and fills the rest with NUL.
template <std::size_t Size>
void CopyText(char (&target)[Size], std::string_view text) {
  const std::size_t length = std::min(text.size(), Size - 1);
  std::memcpy(target, text.data(), length);
  std::memset(target + length, 0, Size - length);
}

/// Reads the whole of `text` as a number the way NMEA 0183 writes them: no exponent, no "nan". False, with `number` as
/// it was, when it is none.
template <typename Number, typename... Format>
bool ReadNumber(std::string_view text, Number& number, Format... format) {
  if (text.size() > MaxNumberLength) return false;
  text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
  Number value{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, format...);
  if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(static_cast<double>(value)))
    return false;
  number = value;
  return true;
}

bool ReadDecimal(std::string_view text, double& number) {
  return ReadNumber(text, number, std::chars_format::fixed);
}

/// The same, an empty field standing for 0: receivers leave out the course when they stand.
bool ReadDecimalOrNothing(std::string_view text, double& number) {
  number = 0.0;
  return text.empty() || ReadDecimal(text, number);
}

/// False for a text that cannot be a coordinate. Where the receiver gave none, it is 0.0.
bool ReadCoordinate(std::string_view value, std::string_view hemisphere, double& coordinate) {
  coordinate = 0.0;
  if (value.size() <= 2 || hemisphere.size() != 1) return true;
  const std::size_t point = value.find('.');
  if (point == std::string_view::npos || point < 2) return false;
  if (value.find_first_not_of("0123456789.") != std::string_view::npos) return false;
  double degrees = 0.0;
  double minutes = 0.0;
  if (!ReadDecimalOrNothing(value.substr(0, point - 2), degrees)) return false;
  if (!ReadDecimal(value.substr(point - 2), minutes)) return false;
  const double sign = hemisphere == "S" || hemisphere == "W" ? -1.0 : 1.0;
  coordinate = sign * (degrees + minutes / 60.0);
  return true;
}

/// Two digits from `position` on.
int ReadPair(std::string_view text, std::size_t position) {
  return (text[position] - '0') * 10 + text[position + 1] - '0';
}

bool StartsWithDigits(std::string_view text, std::size_t count) {
  return text.size() >= count && text.find_first_not_of("0123456789") >= count;
}

std::optional<tm> ReadDateTimeFields(std::string_view date, std::string_view time) {
  if (date.size() > DateLength || !StartsWithDigits(date, DateLength)) return {};
  if (time.size() > MaxTimeLength || !StartsWithDigits(time, ClockLength)) return {};
  // Not in daylight-saving time, whatever the zone, because UTC never is.
  tm fields{};
  fields.tm_hour = ReadPair(time, 0);
  fields.tm_min = ReadPair(time, 2);
  fields.tm_sec = ReadPair(time, 4);
  fields.tm_mday = ReadPair(date, 0);
  fields.tm_mon = ReadPair(date, 2) - 1;
  fields.tm_year = ReadPair(date, 4) + 100;
  return fields;
}

time_t ReadDateTime(std::string_view date, std::string_view time) {
  auto fields = ReadDateTimeFields(date, time);
  return fields ? std::mktime(&*fields) : -1;
}

/// Speed, course and position, as far as they can be read; false when one cannot.
bool LoadMotion(GpsData& data, const GPSLine& line) {
  CopyText(data.std_lat, line.ViewElement(RmcLatitude));
  CopyText(data.std_latCPoint, line.ViewElement(RmcNorth));
  CopyText(data.std_long, line.ViewElement(RmcLongitude));
  CopyText(data.std_longCPoint, line.ViewElement(RmcEast));
  return ReadDecimalOrNothing(line.ViewElement(RmcSpeed), data.speed) &&
         ReadDecimalOrNothing(line.ViewElement(RmcCourse), data.course) &&
         ReadCoordinate(line.ViewElement(RmcLatitude), line.ViewElement(RmcNorth), data.latitude) &&
         ReadCoordinate(line.ViewElement(RmcLongitude), line.ViewElement(RmcEast), data.longitude);
}

void LoadRmc(GpsData& data, const GPSLine& line) {
  const std::string_view time = line.ViewElement(RmcTime);
  const std::string_view date = line.ViewElement(RmcDate);
  data.isValidPackage = 0;
  CopyText(data.gprmc_line, line.ViewLine());
  if (time.empty() || date.empty()) {
    CopyText(data.m_time, "000000000000");
    CopyText(data.m_date, "000000000000");
    return;
  }
  CopyText(data.m_time, time);
  CopyText(data.m_date, date);
  const time_t seconds = ReadDateTime(date, time);
  data.record_u_time = static_cast<std::int32_t>(seconds);
  if (line.ViewElement(RmcStatus) == "V" || seconds == -1) return;
  data.isValidPackage = LoadMotion(data, line) ? 1 : 0;
}

void LoadGga(GpsData& data, const GPSLine& line) {
  int quality = 0;
  if (!ReadNumber(line.ViewElement(GgaQuality), quality) || quality < 1) return;
  ReadNumber(line.ViewElement(GgaSatellites), data.noOfSatellites);
  ReadDecimal(line.ViewElement(GgaHdop), data.HDOP);
  ReadDecimal(line.ViewElement(GgaAltitude), data.altitude);
}

}  // namespace

GpsRouteState GPSDataPackage::gpsRouteState;

GPSDataPackage::GPSDataPackage() : m_data(new GpsData()) {
  m_data->HDOP = m_data->PDOP = m_data->VDOP = UnknownDilution;
}

void GPSDataPackage::AddLine(GPSLine& line) {
  LoadSentence(m_lines.emplace_back(line));
}

void GPSDataPackage::AddText(char* text) {
  // "$", two letters of who talks, and three of what.
  const auto kind = std::string_view(text).substr(0, 6);
  if (kind.ends_with("RMC") || kind.ends_with("GGA")) LoadSentence(m_lines.emplace_back(text));
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): callers elsewhere are built against this signature
void GPSDataPackage::Load(GPSLine line) {
  LoadSentence(line);
}

void GPSDataPackage::LoadSentence(const GPSLine& line) {
  if (m_data == nullptr) return;
  switch (line.GetLineType()) {
    case GPS_LINE_GPRMC:
    case GPS_LINE_GNRMC:
      return LoadRmc(*m_data, line);
    case GPS_LINE_GPGGA:
    case GPS_LINE_GNGGA:
      return LoadGga(*m_data, line);
    default:
      return;
  }
}

void GPSDataPackage::PostProcess() {
  if (m_data == nullptr) return;
  if (m_data->HDOP > WorstDilution) m_data->isValidPackage = 0;
  BuildRoute();
}

void GPSDataPackage::BuildRoute() {
  if (m_data == nullptr) return;
  GpsRouteState& route = gpsRouteState;
  const bool isValid = m_data->isValidPackage != 0;
  if (!isValid) route.lastSpeed = 0.0;
  const double previous = route.lastSpeed * MetresPerSecondPerKnot;
  double speed = isValid ? m_data->speed : 0.0;
  if (speed < m_minSpeed) speed = 0.0;
  const bool isSpike = speed > m_maxSpeed;
  if (isSpike) speed = 0.0;

  // Half of both speeds is the mean over the second between them.
  route.distance += (previous + speed * MetresPerSecondPerKnot) * 0.5;
  route.maxSpeed = std::max(route.maxSpeed, speed);
  route.stopCount += speed == 0.0 ? 1 : 0;
  route.moveCount += speed != 0.0 ? 1 : 0;
  route.highSpeedCount += speed > m_highSpeed ? 1 : 0;
  route.lowSpeedCount += speed != 0.0 && speed < m_lowSpeed ? 1 : 0;
  route.lastSpeed = m_data->speed;

  m_data->maxSpeed = route.maxSpeed;
  m_data->stopCount = route.stopCount;
  m_data->moveCount = route.moveCount;
  m_data->distance = route.distance;
  m_data->highSpeedCount = route.highSpeedCount;
  m_data->lowSpeedCount = route.lowSpeedCount;
}

// Both texts by value: callers elsewhere are built against these signatures.
// NOLINTBEGIN(performance-unnecessary-value-param)
time_t GPSDataPackage::ConvertDateTime(std::string date, std::string time) const {
  return ReadDateTime(date, time);
}

std::optional<std::int64_t> GPSDataPackage::GetUtc(const GpsData& data) {
  auto fields = ReadDateTimeFields(data.m_date, data.m_time);
  if (!fields) return {};
  return timegm(&*fields);
}

std::optional<std::int64_t> GPSDataPackage::GetUtcMs(const GpsData& data) {
  const auto seconds = GetUtc(data);
  if (!seconds) return {};
  std::int64_t ms = *seconds * 1000;
  const std::string_view time(data.m_time, strnlen(data.m_time, sizeof(data.m_time)));
  if (time.size() <= ClockLength || time[ClockLength] != '.') return ms;
  int weight = 100;
  for (const char digit : time.substr(ClockLength + 1)) {
    if (digit < '0' || digit > '9') break;
    ms += (digit - '0') * weight;
    weight /= 10;
  }
  return ms;
}

double GPSDataPackage::ConvertCoordinate(std::string value, std::string hemisphere) const {
  double coordinate = 0.0;
  return ReadCoordinate(value, hemisphere, coordinate) ? coordinate : 0.0;
}
// NOLINTEND(performance-unnecessary-value-param)

void GPSDataPackage::BuildDateAndTime(char* time, char* date) const {
  const time_t now = std::time(nullptr);
  tm fields{};
  gmtime_r(&now, &fields);
  std::strftime(time, ClockLength + 1, "%H%M%S", &fields);
  std::strftime(date, DateLength + 1, "%d%m%y", &fields);
}

}  // namespace Tavi::Gps
