// The fixes of an event as GPX 1.1.
#include <fmt/format.h>

#include <cmath>
#include <iterator>

#include "EventPage/Markup.h"
#include "EventStore/EventName.h"
#include "EventStore/PartName.h"
#include "Tools/Export/Formats.h"

namespace Tavi::EventTools {
namespace {

/// The format knows longitudes below 180 degrees only, as they are written; that meridian is also the one of -180.
double WrapLongitude(double longitude) {
  return longitude > 180.0 - 5e-8 ? -180.0 : longitude;
}

void AddEventPoint(std::string& gpx, const EventData& data) {
  const auto& position = data.description.position;
  if (!position || std::fabs(position->latitude) > 90.0 || std::fabs(position->longitude) > 180.0) return;
  gpx += fmt::format(
      "  <wpt lat=\"{:.7f}\" lon=\"{:.7f}\"><time>{}</time><name>Event {}</name>"
      "<cmt>time by the {}</cmt></wpt>\n",
      position->latitude, WrapLongitude(position->longitude), EventStore::FormatTime(data.description.timeMs),
      data.description.id, EscapeMarkup(data.description.timeSource));
}

/// The format's own elements stand in the order of its schema: this one before the time, the next three behind it.
std::string FormatElevation(const Fix& fix) {
  return fix.altitudeMetres ? fmt::format("<ele>{}</ele>", *fix.altitudeMetres) : "";
}

/// Which kind of fix a corrected one is, the sentences tell; of others not whether they are 2d or 3d.
std::string FormatQuality(const Fix& fix) {
  std::string quality = fix.isDifferential ? "<fix>dgps</fix>" : "";
  if (fix.satellites) quality += fmt::format("<sat>{}</sat>", *fix.satellites);
  if (fix.hdop) quality += fmt::format("<hdop>{}</hdop>", *fix.hdop);
  return quality;
}

void AddSegments(std::string& gpx, const EventData& data) {
  bool isOpen = false;
  for (const Fix& fix : data.gps.records) {
    if (fix.isValid != isOpen) gpx += fix.isValid ? "    <trkseg>\n" : "    </trkseg>\n";
    isOpen = fix.isValid;
    if (!fix.isValid) continue;
    gpx += fmt::format(
        "      <trkpt lat=\"{:.7f}\" lon=\"{:.7f}\">{}<time>{}</time>{}"
        "<extensions><tavi:speedKnots>{:.2f}</tavi:speedKnots></extensions></trkpt>\n",
        fix.latitude, WrapLongitude(fix.longitude), FormatElevation(fix), EventStore::FormatTime(fix.utcMs),
        FormatQuality(fix), fix.speedKnots);
  }
  if (isOpen) gpx += "    </trkseg>\n";
}

/// Only where somebody has named them.
std::string DescribeCameras(const EventStore::EventDescription& event) {
  if (event.cameraNames == EventStore::CameraNames{}) return {};
  return fmt::format("<desc>Cameras: {}, {}</desc>",
                     EscapeMarkup(EventStore::GetPartName("VideoCamera1", event.cameraNames)),
                     EscapeMarkup(EventStore::GetPartName("VideoCamera0", event.cameraNames)));
}

}  // namespace

std::string FormatGpx(const EventData& data) {
  const std::string title = EscapeMarkup(GetTitle(data.description));
  std::string gpx = fmt::format(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<gpx version=\"1.1\" creator=\"tavi-export\" xmlns=\"http://www.topografix.com/GPX/1/1\" "
      "xmlns:tavi=\"urn:tavi:event\">\n"
      "  <metadata><name>{}</name>{}<time>{}</time></metadata>\n",
      title, DescribeCameras(data.description), EventStore::FormatTime(data.description.timeMs));
  AddEventPoint(gpx, data);
  gpx += "  <trk><name>" + title + "</name>\n";
  AddSegments(gpx, data);
  return gpx + "  </trk>\n</gpx>\n";
}

}  // namespace Tavi::EventTools
