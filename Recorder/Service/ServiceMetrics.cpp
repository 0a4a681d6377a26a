// The recorder as a service: its counters and gauges.
#include <nlohmann/json.hpp>
#include <string_view>

#include "Kbase/Util/TemperatureMonitor.h"
#include "Recorder/Health/HealthReport.h"
#include "Recorder/Service/Service.h"
#include "Recorder/Version.h"

namespace Tavi::Recorder {
namespace {

using Type = PrometheusText::Type;

#ifdef TAVI_UNIT
constexpr std::string_view BuiltFor = "unit";
#else
constexpr std::string_view BuiltFor = "desktop";
#endif

void AddOne(PrometheusText& text, const char* name, Type type, const char* help, double value) {
  text.Describe(name, type, help);
  text.Add(value);
}

void AddStorage(PrometheusText& text, const nlohmann::ordered_json& storage) {
  const auto number = [&storage](const char* key) { return storage[key].get<double>(); };
  AddOne(text, "tavi_events_saved_total", Type::Counter, "Events that are complete.", number("saved"));
  AddOne(text, "tavi_events_failed_total", Type::Counter, "Events that could not be saved at once.", number("failed"));
  AddOne(text, "tavi_storage_events", Type::Gauge, "Events on the disk.", number("events"));
  AddOne(text, "tavi_storage_bytes", Type::Gauge, "Bytes that they take.", number("bytes"));
  AddOne(text, "tavi_storage_free_bytes", Type::Gauge, "Bytes free on their disk.", number("freeBytes"));
  AddOne(text, "tavi_storage_full", Type::Gauge, "1 while no event can be saved.",
         storage["full"].get<bool>() ? 1.0 : 0.0);
  AddOne(text, "tavi_storage_waiting_events", Type::Gauge, "Collected events that wait until they can be saved.",
         number("waiting"));
  AddOne(text, "tavi_storage_signed", Type::Gauge, "1 while events are signed.",
         storage["unsigned"].get<std::string>().empty() ? 1.0 : 0.0);
}

}  // namespace

std::string Service::WriteMetrics() const {
  PrometheusText text;
  text.Describe("tavi_build_info", Type::Gauge, "Always 1; what runs is in the labels.");
  text.Add(1.0, {{"version", TAVI_VERSION}, {"commit", GetCommit()}, {"for", BuiltFor}});
  const std::chrono::duration<double> uptime = std::chrono::steady_clock::now() - m_startedAt;
  AddOne(text, "tavi_uptime_seconds", Type::Gauge, "Seconds since the recorder's start.", uptime.count());
  AddOne(text, "tavi_ignition_on", Type::Gauge, "1 while the ignition is on.", m_ignition ? 1.0 : 0.0);
  if (const auto temperature = Kbase::Util::TemperatureMonitor::Known()) {
    AddOne(text, "tavi_temperature_celsius", Type::Gauge, "The unit's temperature.", *temperature);
  }
  const auto queue = m_queue.Read();
  AddOne(text, "tavi_events_running", Type::Gauge, "Events that are collected or saved.",
         static_cast<double>(queue.running.size()));
  AddOne(text, "tavi_events_waiting", Type::Gauge, "Requests that wait for a collect manager.",
         static_cast<double>(queue.waiting));
  AddOne(text, "tavi_events_refused_total", Type::Counter, "Requests for which there was no collect manager.",
         static_cast<double>(m_refused));
  AddStorage(text, m_archive.Describe());
  const auto time = m_timeOfDay.Tell(Moment::Now());
  AddOne(text, "tavi_clock_receiver", Type::Gauge, "1 when events have the receiver's time.",
         time.systemAheadSeconds ? 1.0 : 0.0);
  if (time.systemAheadSeconds) {
    AddOne(text, "tavi_clock_system_ahead_seconds", Type::Gauge, "System's clock minus the receiver's.",
           *time.systemAheadSeconds);
  }
  const auto live = m_live->Read();
  AddOne(text, "tavi_live_clients", Type::Gauge, "Clients of the live stream.", static_cast<double>(live.clients));
  AddOne(text, "tavi_live_dropped_total", Type::Counter, "Entries that clients of the live stream did not get.",
         static_cast<double>(live.dropped));
  WritePrometheus(ReadHealth(), text);
  return text.GetText();
}

}  // namespace Tavi::Recorder
