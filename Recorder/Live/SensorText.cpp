// What a sensor's entry is for people who watch live: one small JSON object.
#include "Recorder/Live/SensorText.h"

#include <cmath>

#include "EventStore/EventName.h"
#include "Kbase/Json/Json.h"
#include "Tavi/Gps/GPSDataPackage.h"

namespace Tavi::Recorder::Live {
namespace {

using Json = Kbase::Json::Object;

double Round(double value, double steps) {
  return std::round(value * steps) / steps;
}

}  // namespace

std::string DescribeFix(const Gps::GpsData& fix) {
  Json json{{"valid", fix.isValidPackage == 1}};
  if (fix.isValidPackage == 1) {
    json["latitude"] = Round(fix.latitude, 1e7);
    json["longitude"] = Round(fix.longitude, 1e7);
    json["speedKnots"] = fix.speed;
    json["course"] = fix.course;
    if (const auto utcMs = Gps::GPSDataPackage::GetUtcMs(fix)) json["time"] = EventStore::FormatTime(*utcMs);
  }
  // The sentence that tells the one tells all three.
  if (fix.HDOP < Gps::UnknownDilution) {
    json["hdop"] = fix.HDOP;
    json["satellites"] = fix.noOfSatellites;
    if (fix.isValidPackage == 1) json["altitude"] = fix.altitude;
  }
  return Kbase::Json::Print(json);
}

std::string DescribeBlock(const Accel::AccDataPak& block) {
  auto samples = Json::array();
  for (std::size_t i = 0; i + 3 <= block.g.size(); i += 3) {
    const double first = block.g[i];
    const double second = block.g[i + 1];
    const double third = block.g[i + 2];
    // No vehicle is without weight.
    if (first == 0.0 && second == 0.0 && third == 0.0) continue;
    samples.push_back({Round(first + 1.0, 1e4), Round(second, 1e4), Round(third, 1e4)});
  }
  return Kbase::Json::Print({{"scaleG", block.scale}, {"samples", std::move(samples)}});
}

std::string DescribeState(const Other::OtherDataPak& sample) {
  Json json{{"cpuPercent", sample.cpuUsage}};
  if (sample.temperature != 0) json["temperatureCelsius"] = static_cast<std::int8_t>(sample.temperature);
  return Kbase::Json::Print(json);
}

}  // namespace Tavi::Recorder::Live
