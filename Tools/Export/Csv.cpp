// All measurements of an event as one table.
#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "EventStore/EventName.h"
#include "Tools/Export/Formats.h"

namespace Tavi::EventTools {
namespace {

/// A row's place on the time line, and its text.
using Row = std::pair<double, std::string>;

constexpr const char* Header =
    "stream,time_from_event_s,time_utc,latitude_deg,longitude_deg,speed_knots,course_deg,"
    "acceleration_x_g,acceleration_y_g,acceleration_z_g,cpu_percent,temperature_celsius,"
    "altitude_m,hdop,satellites,event,label,label_written_later\n";
constexpr const char* NoQuality = ",,,";

std::string FormatRow(const char* stream, double seconds, std::int64_t utcMs, const std::string& cells) {
  return fmt::format("{},{:.3f},{},{}", stream, seconds, EventStore::FormatTime(utcMs), cells);
}

template <typename Number>
std::string FormatOptional(const std::optional<Number>& value) {
  return value ? fmt::format("{}", *value) : "";
}

/// In quotes where the text would be taken for more than one cell (RFC 4180).
std::string QuoteCell(const std::string& text) {
  if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
  std::string cell = "\"";
  for (const char c : text) cell += c == '"' ? "\"\"" : std::string(1, c);
  return cell + "\"";
}

/// Also for a fix without a position, whose cells are empty.
std::string FormatFix(const Fix& fix) {
  if (!fix.isValid) return std::string(",,,,,,,,") + NoQuality;
  return fmt::format("{:.7f},{:.7f},{:.2f},{:.1f},,,,,,{},{},{}", fix.latitude, fix.longitude, fix.speedKnots,
                     fix.courseDegrees, FormatOptional(fix.altitudeMetres), FormatOptional(fix.hdop),
                     FormatOptional(fix.satellites));
}

}  // namespace

std::string FormatCsv(const EventData& data) {
  std::vector<Row> rows;
  rows.reserve(data.gps.records.size() + data.acc.records.size() + data.other.records.size());
  for (const Fix& fix : data.gps.records) {
    const double seconds = fix.secondsFromEvent;
    const std::int64_t timeMs = fix.isValid ? fix.utcMs : GetUtcMs(data.description, seconds);
    rows.emplace_back(seconds, FormatRow("Gps", seconds, timeMs, FormatFix(fix)));
  }
  for (const auto& [seconds, g] : data.acc.records) {
    const std::string cells = fmt::format(",,,,{:.5f},{:.5f},{:.5f},,{}", g[0], g[1], g[2], NoQuality);
    rows.emplace_back(seconds, FormatRow("Acc", seconds, GetUtcMs(data.description, seconds), cells));
  }
  for (const auto& [seconds, cpu, temperature] : data.other.records) {
    const std::string cells = ",,,,,,," + FormatOptional(cpu) + "," + FormatOptional(temperature) + NoQuality;
    rows.emplace_back(seconds, FormatRow("Other", seconds, GetUtcMs(data.description, seconds), cells));
  }
  std::stable_sort(rows.begin(), rows.end(), [](const Row& a, const Row& b) { return a.first < b.first; });
  std::string csv = Header;
  // In each row, so that tables of several events can be put into one.
  const std::string event =
      fmt::format(",{},{},{}\n", data.description.id, QuoteCell(data.description.label), QuoteCell(data.laterLabel));
  for (const auto& [seconds, row] : rows) csv += row + event;
  return csv;
}

}  // namespace Tavi::EventTools
