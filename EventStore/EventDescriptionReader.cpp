// Reading an event's description, whatever the file holds.
#include <fcntl.h>
#include <fmt/format.h>

#include <cstdint>
#include <limits>
#include <utility>

#include "EventStore/EventDescription.h"
#include "EventStore/EventName.h"
#include "EventStore/Storage.h"
#include "Kbase/Json/Json.h"

namespace Tavi::EventStore {
namespace {

using Json = nlohmann::ordered_json;

constexpr int Schema = 1;
/// Of a SHA-256, and of an Ed25519 key.
constexpr std::size_t HashDigits = 64;

bool Assign(const Json& json, std::string& value) {
  if (json.is_string()) value = json.get<std::string>();
  return json.is_string();
}
bool Assign(const Json& json, bool& value) {
  if (json.is_boolean()) value = json.get<bool>();
  return json.is_boolean();
}
bool Assign(const Json& json, double& value) {
  if (json.is_number()) value = json.get<double>();
  return json.is_number();
}
bool Assign(const Json& json, std::uint64_t& value) {
  if (json.is_number_unsigned()) value = json.get<std::uint64_t>();
  return json.is_number_unsigned();
}
bool Assign(const Json& json, std::int64_t& value) {
  constexpr auto Highest = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  if (!json.is_number_integer() || (json.is_number_unsigned() && json.get<std::uint64_t>() > Highest)) return false;
  value = json.get<std::int64_t>();
  return true;
}
bool Assign(const Json& json, int& value) {
  std::int64_t wide = 0;
  if (!Assign(json, wide) || !std::in_range<int>(wide)) return false;
  value = static_cast<int>(wide);
  return true;
}

template <typename T>
bool Assign(const Json& json, std::optional<T>& value) {
  value.reset();
  return json.is_null() || Assign(json, value.emplace());
}

/// The members of one object. What is wrong first stays in `fault`; everything after it does nothing.
class Fields {
 public:
  Fields(const Json& object, std::string path, std::string& fault)
      : m_object(object), m_path(std::move(path)), m_fault(fault) {}

  template <typename T>
  void Take(const char* key, T& value) {
    const Json* member = Find(key);
    if (member != nullptr && !Assign(*member, value)) Fail(key, "is not of the right type");
  }

  /// `take(Fields, value)` for the object under `key`.
  template <typename T, typename TakeMembers>
  void TakeObject(const char* key, T& value, TakeMembers take) {
    const Json* member = Find(key);
    if (member == nullptr) return;
    if (!member->is_object()) return Fail(key, "is no object");
    take(Fields(*member, m_path + key + ".", m_fault), value);
  }

  /// `take(Fields, value)` for each object of the array under `key`.
  template <typename T, typename TakeMembers>
  void TakeList(const char* key, std::vector<T>& values, TakeMembers take) {
    const Json* list = Find(key);
    if (list == nullptr) return;
    if (!list->is_array()) return Fail(key, "is no array");
    for (std::size_t i = 0; i < list->size() && m_fault.empty(); ++i) {
      const std::string item = fmt::format("{}[{}]", key, i);
      if (!(*list)[i].is_object()) return Fail(item.c_str(), "is no object");
      take(Fields((*list)[i], m_path + item + ".", m_fault), values.emplace_back());
    }
  }

  [[nodiscard]] bool Has(const char* key) const { return m_object.contains(key); }
  [[nodiscard]] bool IsNull(const char* key) const {
    const auto found = m_object.find(key);
    return found != m_object.end() && found->is_null();
  }
  /// Demands something more of the value under `key`.
  void Check(bool holds, const char* key, const char* otherwise) {
    if (!holds) Fail(key, otherwise);
  }

 private:
  const Json* Find(const char* key) {
    const auto found = m_object.find(key);
    if (found != m_object.end()) return m_fault.empty() ? &*found : nullptr;
    Fail(key, "is missing");
    return nullptr;
  }
  void Fail(const char* key, const char* reason) {
    if (m_fault.empty()) m_fault = fmt::format("\"{}{}\" {}", m_path, key, reason);
  }

  const Json& m_object;
  const std::string m_path;
  std::string& m_fault;
};

void TakeRequest(Fields fields, EventDescription& event) {
  fields.Take("startSeconds", event.startSeconds);
  fields.Take("durationSeconds", event.durationSeconds);
  fields.Take("preview", event.withPreview);
}

void TakeNames(Fields fields, CameraNames& names) {
  if (!fields.IsNull("VideoCamera1")) fields.Take("VideoCamera1", names[0]);
  if (!fields.IsNull("VideoCamera0")) fields.Take("VideoCamera0", names[1]);
}

void TakePosition(Fields fields, std::optional<Position>& position) {
  Position& taken = position.emplace();
  fields.Take("latitude", taken.latitude);
  fields.Take("longitude", taken.longitude);
  fields.Take("speedKnots", taken.speedKnots);
  fields.Take("fixTime", taken.fixTime);
}

void TakeStream(Fields fields, StreamWindow& stream) {
  fields.Take("type", stream.type);
  fields.Take("entries", stream.entries);
  fields.Take("rate", stream.rate);
  fields.Take("fromSeconds", stream.fromSeconds);
  fields.Take("toSeconds", stream.toSeconds);
  fields.Take("firstTimestampNs", stream.firstTimestampNs);
  fields.Take("lastTimestampNs", stream.lastTimestampNs);
}

void TakeMissing(Fields fields, MissingPart& part) {
  fields.Take("type", part.type);
  fields.Take("seconds", part.seconds);
  fields.Take("reason", part.reason);
}

bool IsHash(const std::string& text) {
  return text.size() == HashDigits && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

void TakeSeal(Fields fields, std::optional<Seal>& seal) {
  Seal& taken = seal.emplace();
  fields.Take("publicKey", taken.publicKey);
  fields.Check(IsHash(taken.publicKey), "publicKey", "is not 64 lower-case hex digits");
  fields.Take("sequence", taken.sequence);
  fields.Take("previous", taken.previous);
  fields.Check(IsHash(taken.previous.value_or(taken.publicKey)), "previous", "is not 64 lower-case hex digits");
}

void TakeFile(Fields fields, EventFile& file) {
  fields.Take("type", file.type);
  fields.Take("name", file.name);
  fields.Check(IsProductName(file.name), "name", "is not the name of a file in the event's directory");
  fields.Take("bytes", file.bytes);
  fields.Take("sha256", file.sha256);
  fields.Check(IsHash(file.sha256), "sha256", "is not 64 lower-case hex digits");
}

void TakeEvent(Fields fields, EventDescription& event) {
  int schema = 0;
  fields.Take("schema", schema);
  fields.Check(schema == Schema, "schema", "is not one that this program knows");
  fields.Take("id", event.id);
  fields.Check(IsEventId(event.id), "id", "is not 8 lower-case hex digits");
  fields.Take("software", event.software);
  fields.Take("label", event.label);
  fields.Take("trigger", event.trigger);
  std::string time;
  fields.Take("time", time);
  const auto timeMs = ParseTime(time);
  fields.Check(timeMs.has_value(), "time", "is not a time like 2026-11-21T13:40:05.123Z");
  event.timeMs = timeMs.value_or(0);
  // Older events do not tell: they go by the system's clock.
  if (fields.Has("timeSource")) fields.Take("timeSource", event.timeSource);
  if (fields.Has("systemAheadSeconds")) fields.Take("systemAheadSeconds", event.systemAheadSeconds);
  fields.TakeObject("request", event, TakeRequest);
  fields.Take("manager", event.manager);
  fields.Take("queuedSeconds", event.queuedSeconds);
  fields.Take("interrupted", event.interrupted);
  fields.Take("maxSpeedKnots", event.maxSpeedKnots);
  fields.Take("maxG", event.maxG);
  // Older events do not tell: all of theirs are of 4 g.
  if (fields.Has("accScaleG")) {
    fields.Take("accScaleG", event.accScaleG);
    const bool isScale = event.accScaleG == 2 || event.accScaleG == 4 || event.accScaleG == 8;
    fields.Check(isScale, "accScaleG", "is not 2, 4 or 8");
  }
  if (!fields.IsNull("position")) fields.TakeObject("position", event.position, TakePosition);
  fields.Take("previewSeconds", event.previewSeconds);
  // Older events do not tell.
  if (fields.Has("cameraNames")) fields.TakeObject("cameraNames", event.cameraNames, TakeNames);
  fields.TakeList("streams", event.streams, TakeStream);
  // Older events do not tell.
  if (fields.Has("missing")) fields.TakeList("missing", event.missing, TakeMissing);
  fields.TakeList("files", event.files, TakeFile);
  if (fields.Has("seal") && !fields.IsNull("seal")) fields.TakeObject("seal", event.seal, TakeSeal);
}

/// What is wrong with `text`, empty when `event` holds all of it.
std::string ParseText(const std::string& text, EventDescription& event) {
  const Json json = Kbase::Json::Parse(text);
  if (json.is_discarded()) return "is no JSON text";
  if (!json.is_object()) return "holds no JSON object";
  std::string fault;
  TakeEvent(Fields(json, "", fault), event);
  return fault.empty() ? "" : "is no event's description: " + fault;
}

}  // namespace

std::optional<EventDescription> ReadEvent(const std::string& eventDir, std::string& problem) {
  const std::string path = eventDir + "/" + EventJsonName;
  std::string text;
  problem.clear();
  if (!ReadSmallFile(path, MaxTextBytes, text, problem)) {
    if (!Exists(path)) return std::nullopt;
    // Once more: who cannot read it takes the event for another one, or for none.
    LogWarning(problem);
    if (!ReadSmallFile(path, MaxTextBytes, text, problem)) return std::nullopt;
    problem.clear();
  }
  EventDescription event;
  const std::string fault = ParseText(text, event);
  if (fault.empty()) return event;
  problem = path + " " + fault;
  return std::nullopt;
}

}  // namespace Tavi::EventStore
