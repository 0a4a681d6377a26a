// The fixes of an event as GeoJSON.
#include <cmath>

#include "EventStore/EventName.h"
#include "EventStore/PartName.h"
#include "Kbase/Json/Json.h"
#include "Tools/Export/Formats.h"

namespace Tavi::EventTools {
namespace {

using Json = nlohmann::ordered_json;

/// To a centimetre, which is more than a receiver knows.
double RoundDegrees(double degrees) {
  return std::round(degrees * 1e7) / 1e7;
}

Json MakeCoordinates(double latitude, double longitude) {
  return Json::array({RoundDegrees(longitude), RoundDegrees(latitude)});
}

Json MakeFeature(const char* geometry, Json coordinates, Json properties) {
  return {{"type", "Feature"},
          {"geometry", {{"type", geometry}, {"coordinates", std::move(coordinates)}}},
          {"properties", std::move(properties)}};
}

/// A line for each run of valid fixes; one alone makes none.
Json MakeLines(const EventData& data) {
  Json lines = Json::array();
  Json line = Json::array();
  const auto close = [&] {
    if (line.size() > 1) lines.push_back(line);
    line = Json::array();
  };
  for (const Fix& fix : data.gps.records) {
    if (fix.isValid)
      line.push_back(MakeCoordinates(fix.latitude, fix.longitude));
    else
      close();
  }
  close();
  return lines;
}

/// The altitude is no third coordinate: that would be the height above the ellipsoid.
Json MakeProperties(const Fix& fix) {
  Json properties{{"kind", "fix"},
                  {"time", EventStore::FormatTime(fix.utcMs)},
                  {"secondsFromEvent", std::round(fix.secondsFromEvent * 1000.0) / 1000.0},
                  {"speedKnots", fix.speedKnots},
                  {"courseDegrees", fix.courseDegrees}};
  if (fix.altitudeMetres) properties["altitudeMetres"] = *fix.altitudeMetres;
  if (fix.hdop) properties["hdop"] = *fix.hdop;
  if (fix.satellites) properties["satellites"] = *fix.satellites;
  return properties;
}

}  // namespace

std::string FormatGeoJson(const EventData& data) {
  const auto& description = data.description;
  Json features = Json::array();
  if (Json lines = MakeLines(data); !lines.empty()) {
    features.push_back(MakeFeature("MultiLineString", std::move(lines),
                                   {{"kind", "track"},
                                    {"id", description.id},
                                    {"label", description.label},
                                    {"labelWrittenLater", data.laterLabel}}));
  }
  for (const Fix& fix : data.gps.records) {
    if (!fix.isValid) continue;
    features.push_back(MakeFeature("Point", MakeCoordinates(fix.latitude, fix.longitude), MakeProperties(fix)));
  }
  if (description.position) {
    features.push_back(
        MakeFeature("Point", MakeCoordinates(description.position->latitude, description.position->longitude),
                    {{"kind", "event"},
                     {"id", description.id},
                     {"label", description.label},
                     {"labelWrittenLater", data.laterLabel},
                     {"time", EventStore::FormatTime(description.timeMs)},
                     {"timeSource", description.timeSource},
                     {"cameras", Json::array({EventStore::GetPartName("VideoCamera1", description.cameraNames),
                                              EventStore::GetPartName("VideoCamera0", description.cameraNames)})}}));
  }
  const Json collection = {{"type", "FeatureCollection"}, {"features", std::move(features)}};
  return Kbase::Json::PrintLines(collection);
}

}  // namespace Tavi::EventTools
