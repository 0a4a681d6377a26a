// The unit's health in one line.
#include <fmt/format.h>

#include "EventStore/EventName.h"
#include "Fleet/Mqtt/Payloads.h"

namespace Tavi::Mqtt {
namespace {

using Json = Kbase::Json::Object;

Json Get(const Json& object, const char* key) {
  return object.is_object() && object.contains(key) ? object[key] : Json(nullptr);
}

/// What people look at first; counters are in the recorder's metrics.
Json Shorten(const Json& sources) {
  Json all = Json::object();
  if (!sources.is_object()) return all;
  for (const auto& [name, source] : sources.items()) {
    auto& shortened = all[name];
    for (const char* key : {"name", "state", "rate", "problem"}) {
      if (const Json value = Get(source, key); !value.is_null()) shortened[key] = value;
    }
  }
  return all;
}

void AddSourceProblems(const Json& sources, Json& problems) {
  for (const auto& [name, source] : sources.items()) {
    const Json state = Get(source, "state");
    if (state != "silent" && state != "missing") continue;
    const Json problem = Get(source, "problem");
    const std::string why = problem.is_string() ? ": " + problem.get<std::string>() : "";
    problems.push_back(fmt::format("{} is {}{}", name, state.get<std::string>(), why));
  }
}

void AddStorageProblems(const Json& storage, Json& problems) {
  const Json problem = Get(storage, "problem");
  const bool hasProblem = problem.is_string() && !problem.get_ref<const std::string&>().empty();
  if (hasProblem) {
    problems.push_back("storage: " + problem.get<std::string>());
  } else if (Get(storage, "full") == true) {
    problems.push_back("storage: it is full");
  }
  const Json isUnsigned = Get(storage, "unsigned");
  if (isUnsigned.is_string() && !isUnsigned.get_ref<const std::string&>().empty()) {
    problems.push_back("events are not signed: " + isUnsigned.get<std::string>());
  }
}

Json FindProblems(const RecorderStatus& recorder) {
  Json problems = Json::array();
  if (!recorder.problem.empty()) problems.push_back(recorder.problem);
  const Json sources = Get(recorder.reply, "sources");
  if (sources.is_object()) AddSourceProblems(sources, problems);
  AddStorageProblems(Get(recorder.reply, "storage"), problems);
  return problems;
}

}  // namespace

std::string BuildHealth(const Settings& settings, const RecorderStatus& recorder, const OwnHealth& own,
                        std::int64_t nowMs) {
  const Json& reply = recorder.reply;
  const Json problems = FindProblems(recorder);
  Json json;
  json["unit"] = settings.unit;
  json["time"] = EventStore::FormatTime(nowMs);
  json["state"] = reply.is_null() ? Json("absent") : Get(reply, "state");
  for (const char* key : {"software", "ignition", "uptimeSeconds", "clock"}) json[key] = Get(reply, key);
  json["temperatureCelsius"] = recorder.temperatureCelsius ? Json(*recorder.temperatureCelsius) : Json(nullptr);
  json["problem"] = !problems.empty();
  json["problems"] = problems;
  json["storage"] = Get(reply, "storage");
  json["sources"] = Shorten(Get(reply, "sources"));
  json["lastEvent"] = nullptr;
  if (!own.lastEventId.empty()) json["lastEvent"] = {{"id", own.lastEventId}, {"time", own.lastEventTime}};
  json["unpublished"] = own.unpublished;
  return Kbase::Json::Print(json);
}

}  // namespace Tavi::Mqtt
