// The requests of the control socket: their fields, their limits, their text.
#pragma once

#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Control/RequestLimits.h"

namespace Tavi::Recorder {

inline constexpr const char* DefaultControlSocket = "/run/tavi/control.sock";

/// A request with its line end; what is longer is no request.
inline constexpr std::size_t MaxRequestBytes = 64 * 1024;
/// A reply with its line end.
inline constexpr std::size_t MaxReplyBytes = 1024 * 1024;

inline constexpr int LongestBeforeSeconds = -Limits::StartSeconds.low;
inline constexpr int LongestDurationSeconds = Limits::DurationSeconds.high;
inline constexpr std::size_t MaxLabelCharacters = 200;

/// The values of a request's field "command".
namespace Command {
inline constexpr const char* Status = "status";
inline constexpr const char* Event = "event";
inline constexpr const char* Ignition = "ignition";
inline constexpr const char* PowerFail = "power-fail";
inline constexpr const char* Events = "events";
inline constexpr const char* Protect = "protect";
inline constexpr const char* Remove = "remove";
inline constexpr const char* Metrics = "metrics";
inline constexpr const char* Identity = "identity";
inline constexpr const char* Settings = "settings";
inline constexpr const char* Live = "live";
inline constexpr const char* Label = "label";
inline constexpr const char* Stop = "stop";
}  // namespace Command

/// A window around now becomes files.
struct EventRequest {
  /// How long before now the window begins, 0 to LongestBeforeSeconds. This and what is empty below is as in the
  /// recorder's settings.
  std::optional<int> beforeSeconds;
  /// Length of the window, 0 to LongestDurationSeconds.
  std::optional<int> durationSeconds;
  std::optional<bool> preview;
  /// For people; see CheckLabel.
  std::string label;
  /// It is not removed to make room.
  bool keep = false;
  /// The reply comes when the event's files are complete, not when the event is accepted.
  bool wait = false;
};

struct IgnitionRequest {
  bool on = false;
};

/// Keeps an event from being removed to make room, or no longer does.
struct ProtectRequest {
  /// Eight lower-case hexadecimal digits.
  std::string event;
  bool isProtected = true;
};

/// Writes down what people say of a complete event, in place of what they said before.
struct LabelRequest {
  /// As of ProtectRequest.
  std::string event;
  /// See CheckLabel; empty: nothing any more.
  std::string label;
};

/// Removes a complete event for good.
struct RemoveRequest {
  /// As of ProtectRequest.
  std::string event;
  /// Also one that is protected.
  bool evenProtected = false;
};

/// What the sources deliver from now on, on the same connection; see LiveProtocol.
struct LiveRequest {
  /// Of LiveStreamNames, each once; empty: all that are enabled.
  std::vector<std::string> streams;
};

/// Reads one line into an object with a string "command" and, if any, an "id" that is a string or an integer. Empty,
/// with one sentence in `problem`, when the line is anything else or nested deeper than requests are.
std::optional<nlohmann::ordered_json> ParseRequest(const std::string& line, std::string& problem);

/// Of a command without fields of its own: false, with one sentence in `problem`, when there is one beside "command"
/// and "id".
bool CheckPlainRequest(const nlohmann::ordered_json& request, std::string& problem);
/// Read the fields beside "command" and "id"; a field that is left out has the record's default, "on", "event" and the
/// "label" of LabelRequest have none. Empty, with field, value and what would be right on one line in `problem`, when a
/// value is wrong or a field unknown.
std::optional<EventRequest> ParseEventRequest(const nlohmann::ordered_json& request, std::string& problem);
std::optional<IgnitionRequest> ParseIgnitionRequest(const nlohmann::ordered_json& request, std::string& problem);
std::optional<ProtectRequest> ParseProtectRequest(const nlohmann::ordered_json& request, std::string& problem);
std::optional<RemoveRequest> ParseRemoveRequest(const nlohmann::ordered_json& request, std::string& problem);
std::optional<LabelRequest> ParseLabelRequest(const nlohmann::ordered_json& request, std::string& problem);
std::optional<LiveRequest> ParseLiveRequest(const nlohmann::ordered_json& request, std::string& problem);

/// The requests as the functions above read them.
nlohmann::ordered_json BuildRequest(const EventRequest& request);
nlohmann::ordered_json BuildRequest(const IgnitionRequest& request);
nlohmann::ordered_json BuildRequest(const ProtectRequest& request);
nlohmann::ordered_json BuildRequest(const RemoveRequest& request);
nlohmann::ordered_json BuildRequest(const LabelRequest& request);
nlohmann::ordered_json BuildRequest(const LiveRequest& request);

/// What is wrong with an event's label; empty for UTF-8 of at most MaxLabelCharacters code points without control
/// characters (C0, DEL, C1: they would act on the terminal that lists the events).
std::string CheckLabel(const std::string& label);
bool IsEventId(const std::string& text);
/// Code points.
std::size_t CountCharacters(std::string_view utf8);

/// {"ok":false,"error":sentence}
nlohmann::ordered_json BuildError(const std::string& sentence);
/// One line with its end; text that is no UTF-8 has its bad bytes replaced.
std::string BuildLine(const nlohmann::ordered_json& object);

}  // namespace Tavi::Recorder
