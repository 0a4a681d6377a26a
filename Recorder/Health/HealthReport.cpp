// The sources' health as others read it.
#include "Recorder/Health/HealthReport.h"

#include <array>
#include <cmath>
#include <nlohmann/json.hpp>
#include <optional>

namespace Tavi::Recorder {
namespace {

using Type = PrometheusText::Type;

struct Metric {
  const char* name;
  Type type;
  const char* help;
  std::optional<double> (*get)(const SourceHealth&);
};

std::optional<double> GetAgeSeconds(const SourceHealth& source) {
  if (!source.newestAge) return std::nullopt;
  return std::chrono::duration<double>(*source.newestAge).count();
}

using Value = std::optional<double>;

Value ToValue(const std::optional<std::uint64_t>& count) {
  return count ? Value(static_cast<double>(*count)) : std::nullopt;
}

constexpr std::array<Metric, 10> Metrics{{
    {"tavi_source_entries_total", Type::Counter, "Entries that the source has delivered.",
     [](const SourceHealth& s) { return Value(static_cast<double>(s.entries)); }},
    {"tavi_source_rate_hertz", Type::Gauge, "Entries per second over the last five seconds.",
     [](const SourceHealth& s) { return Value(s.rate); }},
    {"tavi_source_configured_rate_hertz", Type::Gauge, "Entries per second that the source is configured for.",
     [](const SourceHealth& s) { return Value(s.configuredRate); }},
    {"tavi_source_newest_entry_age_seconds", Type::Gauge, "Age of the newest entry.", GetAgeSeconds},
    {"tavi_source_missed_entries_total", Type::Counter,
     "Periods of the configured rate without an entry while the source delivered before and after.",
     [](const SourceHealth& s) { return Value(static_cast<double>(s.missed)); }},
    {"tavi_source_restarts_total", Type::Counter, "How often the source began anew.",
     [](const SourceHealth& s) { return Value(static_cast<double>(s.restarts)); }},
    {"tavi_source_silent", Type::Gauge, "1 while the source should deliver and does not.",
     [](const SourceHealth& s) {
       return Value(s.state == SourceState::Silent || s.state == SourceState::Missing ? 1.0 : 0.0);
     }},
    {"tavi_source_revivals_total", Type::Counter, "How often the source was started anew because it was silent.",
     [](const SourceHealth& s) { return ToValue(s.revivals); }},
    {"tavi_source_bus_errors_total", Type::Counter, "Transfers that failed on the source's bus.",
     [](const SourceHealth& s) { return ToValue(s.busErrors); }},
    {"tavi_source_overflows_total", Type::Counter, "How often the source's chip lost samples before they were read.",
     [](const SourceHealth& s) { return ToValue(s.overflows); }},
}};

double RoundRate(double rate) {
  return std::round(rate * 100.0) / 100.0;
}

}  // namespace

nlohmann::ordered_json ToJson(const std::vector<SourceHealth>& sources) {
  auto all = nlohmann::ordered_json::object();
  for (const SourceHealth& source : sources) {
    auto& json = all[GetSourceName(source.type)];
    if (!source.name.empty()) json["name"] = source.name;
    json["state"] = GetStateName(source.state);
    if (!source.problem.empty()) json["problem"] = source.problem;
    json["entries"] = source.entries;
    json["rate"] = RoundRate(source.rate);
    json["configuredRate"] = RoundRate(source.configuredRate);
    json["newestEntryAgeMs"] = nullptr;
    if (source.newestAge) json["newestEntryAgeMs"] = source.newestAge->count();
    json["missed"] = source.missed;
    json["restarts"] = source.restarts;
    if (source.revivals) json["revivals"] = *source.revivals;
    if (source.busErrors) json["busErrors"] = *source.busErrors;
    if (source.overflows) json["overflows"] = *source.overflows;
  }
  return all;
}

void WritePrometheus(const std::vector<SourceHealth>& sources, PrometheusText& text) {
  for (const Metric& metric : Metrics) {
    text.Describe(metric.name, metric.type, metric.help);
    for (const SourceHealth& source : sources) {
      const auto value = metric.get(source);
      if (!value) continue;
      if (source.name.empty()) {
        text.Add(*value, {{"source", GetSourceName(source.type)}});
      } else {
        text.Add(*value, {{"source", GetSourceName(source.type)}, {"name", source.name}});
      }
    }
  }
}

std::string ToPrometheus(const std::vector<SourceHealth>& sources) {
  PrometheusText text;
  WritePrometheus(sources, text);
  return text.GetText();
}

}  // namespace Tavi::Recorder
