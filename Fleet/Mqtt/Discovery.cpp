// What tells a dashboard which values there are, in the form that Home Assistant reads and others have taken over.
#include <fmt/format.h>

#include <array>
#include <string_view>

#include "Fleet/Mqtt/Payloads.h"
#include "Kbase/Json/Json.h"

namespace Tavi::Mqtt {
namespace {

using Json = Kbase::Json::Object;

struct Value {
  std::string_view component;
  std::string_view key;
  std::string_view name;
  /// Of health; empty for availability.
  std::string_view valueTemplate;
  /// As dashboards know it; this and what follows may be empty.
  std::string_view deviceClass;
  std::string_view unit;
  std::string_view category;
};

constexpr std::array<Value, 8> Values{{
    {"sensor", "state", "State", "{{ value_json.state }}", "", "", ""},
    {"sensor", "free", "Free storage", "{{ value_json.storage.freeBytes if value_json.storage else None }}",
     "data_size", "B", "diagnostic"},
    {"sensor", "events", "Events", "{{ value_json.storage.events if value_json.storage else None }}", "", "events", ""},
    {"sensor", "temperature", "Temperature", "{{ value_json.temperatureCelsius }}", "temperature", "°C", "diagnostic"},
    {"sensor", "last_event", "Last event", "{{ value_json.lastEvent.time if value_json.lastEvent else None }}",
     "timestamp", "", ""},
    {"sensor", "unpublished", "Events to publish", "{{ value_json.unpublished }}", "", "events", "diagnostic"},
    {"binary_sensor", "problem", "Problem", "{{ 'ON' if value_json.problem else 'OFF' }}", "problem", "", ""},
    {"binary_sensor", "connection", "Connection", "", "connectivity", "", "diagnostic"},
}};

/// Three messages that did not come make a value unknown.
constexpr int MissedMessages = 3;

Json BuildDevice(const Settings& settings) {
  return {{"identifiers", {"tavi_" + settings.unit}},
          {"name", settings.unit},
          {"model", "vehicle event recorder"},
          {"sw_version", TAVI_VERSION}};
}

void AddHealthValue(const Settings& settings, const Value& value, const std::string& availability, Json& config) {
  config["state_topic"] = BuildTopic(settings, "health");
  config["value_template"] = value.valueTemplate;
  config["availability_topic"] = availability;
  config["expire_after"] = MissedMessages * settings.healthSeconds;
  if (value.deviceClass == "problem") config["json_attributes_topic"] = BuildTopic(settings, "health");
}

Message BuildOne(const Settings& settings, const Value& value) {
  const std::string availability = BuildTopic(settings, AvailabilityTopic);
  Json config;
  config["name"] = value.name;
  config["unique_id"] = fmt::format("tavi_{}_{}", settings.unit, value.key);
  if (!value.valueTemplate.empty()) {
    AddHealthValue(settings, value, availability, config);
  } else {
    config["state_topic"] = availability;
    config["payload_on"] = Online;
    config["payload_off"] = Offline;
  }
  if (!value.deviceClass.empty()) config["device_class"] = value.deviceClass;
  if (!value.unit.empty()) config["unit_of_measurement"] = value.unit;
  if (!value.category.empty()) config["entity_category"] = value.category;
  config["device"] = BuildDevice(settings);
  config["origin"] = {{"name", "tavi-mqtt"}, {"sw_version", TAVI_VERSION}};
  const std::string topic =
      fmt::format("{}/{}/tavi_{}/{}/config", settings.discoveryPrefix, value.component, settings.unit, value.key);
  return {topic, Kbase::Json::Print(config), 0, true};
}

}  // namespace

std::vector<Message> BuildDiscovery(const Settings& settings) {
  std::vector<Message> messages;
  for (const auto& value : Values) messages.push_back(BuildOne(settings, value));
  return messages;
}

}  // namespace Tavi::Mqtt
