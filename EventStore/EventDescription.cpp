// An event's description as JSON text.
#include "EventStore/EventDescription.h"

#include <algorithm>
#include <cmath>

#include "EventStore/EventName.h"
#include "Kbase/Json/Json.h"

namespace Tavi::EventStore {
namespace {

using Json = nlohmann::ordered_json;

/// JSON has no NaN and no infinity: where a number is required, 0 stands for them.
double Finite(double value) {
  return std::isfinite(value) ? value : 0.0;
}

/// The serializer writes NaN as null, which is what is meant.
template <typename T>
Json OrNull(const std::optional<T>& value) {
  return value ? Json(*value) : Json(nullptr);
}

Json ToJson(const std::optional<Position>& position) {
  if (!position) return nullptr;
  return {{"latitude", Finite(position->latitude)},
          {"longitude", Finite(position->longitude)},
          {"speedKnots", Finite(position->speedKnots)},
          {"fixTime", position->fixTime}};
}

Json ToJson(const StreamWindow& stream) {
  return {{"type", stream.type},
          {"entries", stream.entries},
          {"rate", Finite(stream.rate)},
          {"fromSeconds", Finite(stream.fromSeconds)},
          {"toSeconds", Finite(stream.toSeconds)},
          {"firstTimestampNs", OrNull(stream.firstTimestampNs)},
          {"lastTimestampNs", OrNull(stream.lastTimestampNs)}};
}

Json ToJson(const MissingPart& part) {
  return {{"type", part.type}, {"seconds", Finite(part.seconds)}, {"reason", part.reason}};
}

Json ToJson(const EventFile& file) {
  return {{"type", file.type}, {"name", file.name}, {"bytes", file.bytes}, {"sha256", file.sha256}};
}

Json ToJson(const std::optional<Seal>& seal) {
  if (!seal) return nullptr;
  return {{"publicKey", seal->publicKey}, {"sequence", seal->sequence}, {"previous", OrNull(seal->previous)}};
}

Json ToJson(const CameraNames& names) {
  const auto orNull = [](const std::string& name) { return name.empty() ? Json(nullptr) : Json(name); };
  return {{"VideoCamera1", orNull(names[0])}, {"VideoCamera0", orNull(names[1])}};
}

template <typename T>
Json ToList(const std::vector<T>& values) {
  Json list = Json::array();
  for (const T& value : values) list.push_back(ToJson(value));
  return list;
}

}  // namespace

void SetTime(EventDescription& event, const EventTime& time) {
  event.timeMs = time.timeMs;
  event.timeSource = time.source;
  event.systemAheadSeconds = time.systemAheadSeconds;
}

EventTime GetTime(const EventDescription& event) {
  return {event.timeMs, event.timeSource, event.systemAheadSeconds};
}

std::int64_t GetSystemTimeMs(const EventDescription& event) {
  // Beyond a thousand years the number is damaged.
  constexpr double Longest = 3.2e10;
  const double ahead = event.timeSource == ReceiverSource ? event.systemAheadSeconds.value_or(0.0) : 0.0;
  return event.timeMs + (std::fabs(ahead) < Longest ? std::llround(ahead * 1000.0) : 0);
}

std::string FormatEvent(const EventDescription& event) {
  Json json;
  json["schema"] = 1;
  json["id"] = event.id;
  json["software"] = event.software;
  json["label"] = event.label;
  json["trigger"] = event.trigger;
  json["time"] = FormatTime(event.timeMs);
  json["timeSource"] = event.timeSource;
  json["systemAheadSeconds"] = OrNull(event.systemAheadSeconds);
  json["request"] = {
      {"startSeconds", event.startSeconds}, {"durationSeconds", event.durationSeconds}, {"preview", event.withPreview}};
  json["manager"] = event.manager;
  json["queuedSeconds"] = Finite(event.queuedSeconds);
  json["interrupted"] = event.interrupted;
  json["maxSpeedKnots"] = OrNull(event.maxSpeedKnots);
  json["maxG"] = OrNull(event.maxG);
  json["accScaleG"] = event.accScaleG;
  json["position"] = ToJson(event.position);
  json["previewSeconds"] = event.previewSeconds;
  json["cameraNames"] = ToJson(event.cameraNames);
  json["streams"] = ToList(event.streams);
  json["missing"] = ToList(event.missing);
  json["files"] = ToList(event.files);
  json["seal"] = ToJson(event.seal);
  return Kbase::Json::PrintLines(json);
}

double GetRecordedSeconds(const EventDescription& event) {
  if (event.streams.empty()) return 0.0;
  const auto first = std::ranges::min_element(event.streams, {}, &StreamWindow::fromSeconds);
  const auto last = std::ranges::max_element(event.streams, {}, &StreamWindow::toSeconds);
  return last->toSeconds - first->fromSeconds;
}

}  // namespace Tavi::EventStore
