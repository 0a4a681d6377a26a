// An event in one line.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <numeric>

#include "EventStore/Chain.h"
#include "EventStore/EventDescription.h"
#include "EventStore/EventName.h"
#include "EventStore/Sha256.h"
#include "EventStore/Storage.h"
#include "Fleet/Mqtt/Payloads.h"
#include "Kbase/Json/Json.h"

namespace Tavi::Mqtt {
namespace {

using Json = Kbase::Json::Object;
using EventStore::EventDescription;
constexpr std::size_t LargestSignature = 1024;

template <class T>
Json OrNull(const std::optional<T>& value) {
  return value ? Json(*value) : Json(nullptr);
}

Json ReadSignature(const std::string& eventDir) {
  std::string bytes;
  std::string ignored;
  if (!EventStore::ReadSmallFile(eventDir + "/" + EventStore::SignatureName, LargestSignature, bytes, ignored))
    return nullptr;
  std::string digits;
  for (const char byte : bytes) digits += fmt::format("{:02x}", static_cast<unsigned char>(byte));
  return digits;
}

Json HashText(const std::string& text) {
  EventStore::Sha256 hash;
  if (!hash.Add(text.data(), text.size())) return nullptr;
  const std::string digits = hash.Finish();
  return digits.empty() ? Json(nullptr) : Json(digits);
}

void AddPosition(const EventDescription& event, Json& json) {
  const auto& position = event.position;
  json["latitude"] = position ? Json(position->latitude) : Json(nullptr);
  json["longitude"] = position ? Json(position->longitude) : Json(nullptr);
  json["speedKnots"] = position ? Json(position->speedKnots) : Json(nullptr);
}

void AddEvent(const EventDescription& event, Json& json) {
  std::vector<std::string> missing;
  for (const auto& part : event.missing) missing.push_back(part.type);
  json["time"] = EventStore::FormatTime(event.timeMs);
  json["timeSource"] = event.timeSource;
  json["label"] = event.label;
  json["trigger"] = event.trigger;
  json["recordedSeconds"] = EventStore::GetRecordedSeconds(event);
  json["maxG"] = OrNull(event.maxG);
  json["maxSpeedKnots"] = OrNull(event.maxSpeedKnots);
  AddPosition(event, json);
  json["interrupted"] = event.interrupted;
  json["missing"] = fmt::format("{}", fmt::join(missing, " "));
  json["missingParts"] = missing.size();
  json["files"] = event.files.size();
  json["bytes"] = std::accumulate(event.files.begin(), event.files.end(), std::uint64_t{0},
                                  [](std::uint64_t sum, const auto& file) { return sum + file.bytes; });
  json["software"] = event.software;
  json["publicKey"] = event.seal ? Json(event.seal->publicKey) : Json(nullptr);
  json["sequence"] = event.seal ? Json(event.seal->sequence) : Json(nullptr);
}

}  // namespace

std::string BuildSummary(const Settings& settings, const EventStore::EventEntry& entry, const std::string& eventDir,
                         const std::string& description) {
  Json json;
  json["unit"] = settings.unit;
  json["id"] = entry.id;
  json["directory"] = entry.name;
  std::string problem;
  if (const auto event = EventStore::ReadEvent(eventDir, problem)) {
    AddEvent(*event, json);
  } else {
    json["problem"] = problem;
  }
  json["sha256"] = HashText(description);
  json["signature"] = ReadSignature(eventDir);
  return Kbase::Json::Print(json);
}

}  // namespace Tavi::Mqtt
