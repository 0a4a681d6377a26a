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
    "acceleration_x_g,acceleration_y_g,acceleration_z_g,cpu_percent,temperature_celsius\n";

std::string FormatRow(const char* stream, double seconds, std::int64_t utcMs, const std::string& cells) {
  return fmt::format("{},{:.3f},{},{}\n", stream, seconds, EventStore::FormatTime(utcMs), cells);
}

std::string FormatOptional(const std::optional<int>& value) {
  return value ? std::to_string(*value) : "";
}

}  // namespace

std::string FormatCsv(const EventData& data) {
  std::vector<Row> rows;
  rows.reserve(data.gps.records.size() + data.acc.records.size() + data.other.records.size());
  for (const auto& [seconds, isValid, utcMs, latitude, longitude, speed, course] : data.gps.records) {
    const std::string cells =
        isValid ? fmt::format("{:.7f},{:.7f},{:.2f},{:.1f},,,,,", latitude, longitude, speed, course) : ",,,,,,,,";
    const std::int64_t timeMs = isValid ? utcMs : GetUtcMs(data.description, seconds);
    rows.emplace_back(seconds, FormatRow("Gps", seconds, timeMs, cells));
  }
  for (const auto& [seconds, g] : data.acc.records) {
    const std::string cells = fmt::format(",,,,{:.5f},{:.5f},{:.5f},,", g[0], g[1], g[2]);
    rows.emplace_back(seconds, FormatRow("Acc", seconds, GetUtcMs(data.description, seconds), cells));
  }
  for (const auto& [seconds, cpu, temperature] : data.other.records) {
    const std::string cells = ",,,,,,," + FormatOptional(cpu) + "," + FormatOptional(temperature);
    rows.emplace_back(seconds, FormatRow("Other", seconds, GetUtcMs(data.description, seconds), cells));
  }
  std::stable_sort(rows.begin(), rows.end(), [](const Row& a, const Row& b) { return a.first < b.first; });
  std::string csv = Header;
  for (const auto& [seconds, row] : rows) csv += row;
  return csv;
}

}  // namespace Tavi::EventTools
