// The requests of the control socket.
#include "Control/Protocol.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <set>
#include <string_view>

#include "Control/LiveProtocol.h"
#include "Kbase/Json/Json.h"

namespace Tavi::Recorder {
namespace {

using Json = Kbase::Json::Object;

/// Requests are flat. Copying and writing a JSON value recurses, so depth is what a line of 64 KiB could do harm with.
constexpr int MaxDepth = 8;
/// Looking for a twofold name takes the square of their number.
constexpr std::size_t MaxFields = 64;
constexpr std::size_t MaxQuotedBytes = 60;
constexpr std::size_t EventIdDigits = 8;

/// The value as it came, in printable characters and cut to what one line can bear.
std::string Quote(const Json& value) {
  if (value.is_structured()) return value.is_array() ? "an array" : "an object";
  std::string text = Kbase::Json::PrintAscii(value);
  if (text.size() > MaxQuotedBytes) text = text.substr(0, MaxQuotedBytes) + "...";
  return text;
}

bool HasControlCharacters(std::string_view utf8) {
  unsigned char before = 0;
  for (const char c : utf8) {
    const auto byte = static_cast<unsigned char>(c);
    const bool isC1 = before == 0xC2 && byte < 0xA0;  // U+0080 to U+009F
    if (byte < 0x20 || byte == 0x7F || isC1) return true;
    before = byte;
  }
  return false;
}

/// Takes the fields of one request one after another and remembers the first thing that is wrong.
class FieldReader {
 public:
  FieldReader(const Json& request, std::string& problem) : m_request(request), m_problem(problem) { problem.clear(); }

  void ReadWholeNumber(const char* name, int highest, std::optional<int>& target) {
    const Json* value = Find(name);
    if (!value) return;
    const auto number = value->is_number_integer() ? value->get<std::int64_t>() : -1;
    if (number < 0 || number > highest) {
      Complain(fmt::format("{}: {} is no whole number from 0 to {}", name, Quote(*value), highest));
    } else {
      target = static_cast<int>(number);
    }
  }
  template <class Flag>
  void ReadBool(const char* name, Flag& target) {
    const Json* value = Find(name);
    if (!value) return;
    if (value->is_boolean()) {
      target = value->get<bool>();
    } else {
      Complain(fmt::format("{}: {} is neither true nor false", name, Quote(*value)));
    }
  }
  void ReadLabel(const char* name, std::string& target) {
    const Json* value = Find(name);
    if (!value) return;
    const std::string reason = value->is_string() ? CheckLabel(value->get<std::string>()) : "it is no text";
    if (reason.empty()) {
      target = value->get<std::string>();
    } else {
      Complain(fmt::format("{}: {}: {}", name, Quote(*value), reason));
    }
  }
  void ReadEventId(const char* name, std::string& target) {
    const Json* value = Find(name);
    if (!value) return;
    if (value->is_string() && IsEventId(value->get<std::string>())) {
      target = value->get<std::string>();
    } else {
      Complain(fmt::format("{}: {} is no event's id; give its {} hexadecimal digits in lower case", name, Quote(*value),
                           EventIdDigits));
    }
  }
  void ReadStreams(const char* name, std::vector<std::string>& target) {
    const Json* value = Find(name);
    if (!value) return;
    if (!value->is_array() || value->empty()) {
      return Complain(fmt::format("{}: {} is no list of streams; give some of {}, or leave it out for all", name,
                                  value->is_array() ? "an empty list" : Quote(*value),
                                  fmt::join(LiveStreamNames, ", ")));
    }
    for (const Json& stream : *value) ReadStream(name, stream, target);
  }
  void Demand(const char* name, const char* right) {
    if (!m_request.contains(name)) Complain(fmt::format("{}: it is missing; give {}", name, right));
  }
  /// Call it last. A misspelt field must not be taken for one that was left out.
  [[nodiscard]] bool Finish() {
    m_known.insert(m_known.end(), {"command", "id"});
    for (const auto& [name, value] : m_request.items()) {
      if (std::find(m_known.begin(), m_known.end(), name) != m_known.end()) continue;
      Complain(fmt::format("{}: {}: there is no such field; there are {}", Quote(name), Quote(value),
                           fmt::join(m_known, ", ")));
    }
    return m_problem.empty();
  }

 private:
  const Json* Find(const char* name) {
    m_known.emplace_back(name);
    const auto found = m_request.find(name);
    return found == m_request.end() ? nullptr : &*found;
  }
  void ReadStream(const char* name, const Json& value, std::vector<std::string>& target) {
    const auto known = std::find(LiveStreamNames.begin(), LiveStreamNames.end(), value);
    if (known == LiveStreamNames.end()) {
      Complain(fmt::format("{}: {} is no stream; there are {}", name, Quote(value), fmt::join(LiveStreamNames, ", ")));
    } else if (std::find(target.begin(), target.end(), *known) != target.end()) {
      Complain(fmt::format("{}: {} is there twice; once is right", name, Quote(value)));
    } else {
      target.emplace_back(*known);
    }
  }
  void Complain(std::string sentence) {
    if (m_problem.empty()) m_problem = std::move(sentence);
  }

  const Json& m_request;
  std::string& m_problem;
  std::vector<std::string_view> m_known;
};

}  // namespace

std::optional<Json> ParseRequest(const std::string& line, std::string& problem) {
  bool tooDeep = false;
  std::set<std::string> names;
  std::string twice;
  const auto watch = [&](int depth, Json::parse_event_t event, Json& parsed) {
    tooDeep = tooDeep || depth > MaxDepth || names.size() > MaxFields;
    if (event == Json::parse_event_t::key && depth == 1 && !names.insert(parsed).second) twice = parsed;
    return !tooDeep;
  };
  Json request = Json::parse(line, watch, false);
  if (tooDeep || !request.is_object() || !request.contains("command") || !request["command"].is_string()) {
    problem = R"(the line is no request; give one JSON object with a "command", such as {"command":"status"})";
    return std::nullopt;
  }
  // Which of the two is meant nobody can tell.
  if (!twice.empty()) {
    problem = fmt::format("{}: it is there twice; once is right", twice);
    return std::nullopt;
  }
  if (request.contains("id") && !request["id"].is_string() && !request["id"].is_number_integer()) {
    problem = fmt::format("id: {} is neither text nor a whole number", Quote(request["id"]));
    return std::nullopt;
  }
  return request;
}

bool CheckPlainRequest(const Json& request, std::string& problem) {
  return FieldReader(request, problem).Finish();
}

std::optional<EventRequest> ParseEventRequest(const Json& request, std::string& problem) {
  EventRequest event;
  FieldReader reader(request, problem);
  reader.ReadWholeNumber("beforeSeconds", LongestBeforeSeconds, event.beforeSeconds);
  reader.ReadWholeNumber("durationSeconds", LongestDurationSeconds, event.durationSeconds);
  reader.ReadBool("preview", event.preview);
  reader.ReadLabel("label", event.label);
  reader.ReadBool("keep", event.keep);
  reader.ReadBool("wait", event.wait);
  return reader.Finish() ? std::make_optional(event) : std::nullopt;
}

std::optional<IgnitionRequest> ParseIgnitionRequest(const Json& request, std::string& problem) {
  IgnitionRequest ignition;
  FieldReader reader(request, problem);
  reader.Demand("on", "true or false");
  reader.ReadBool("on", ignition.on);
  return reader.Finish() ? std::make_optional(ignition) : std::nullopt;
}

std::optional<ProtectRequest> ParseProtectRequest(const Json& request, std::string& problem) {
  ProtectRequest protect;
  FieldReader reader(request, problem);
  reader.Demand("event", "an event's id");
  reader.ReadEventId("event", protect.event);
  reader.ReadBool("protected", protect.isProtected);
  return reader.Finish() ? std::make_optional(protect) : std::nullopt;
}

std::optional<RemoveRequest> ParseRemoveRequest(const Json& request, std::string& problem) {
  RemoveRequest remove;
  FieldReader reader(request, problem);
  reader.Demand("event", "an event's id");
  reader.ReadEventId("event", remove.event);
  reader.ReadBool("evenProtected", remove.evenProtected);
  return reader.Finish() ? std::make_optional(remove) : std::nullopt;
}

std::optional<LabelRequest> ParseLabelRequest(const Json& request, std::string& problem) {
  LabelRequest label;
  FieldReader reader(request, problem);
  reader.Demand("event", "an event's id");
  reader.ReadEventId("event", label.event);
  reader.Demand("label", "a text, empty for none");
  reader.ReadLabel("label", label.label);
  return reader.Finish() ? std::make_optional(label) : std::nullopt;
}

std::optional<LiveRequest> ParseLiveRequest(const Json& request, std::string& problem) {
  LiveRequest live;
  FieldReader reader(request, problem);
  reader.ReadStreams("streams", live.streams);
  return reader.Finish() ? std::make_optional(live) : std::nullopt;
}

nlohmann::ordered_json BuildRequest(const EventRequest& request) {
  nlohmann::ordered_json json{{"command", Command::Event}};
  if (request.beforeSeconds) json["beforeSeconds"] = *request.beforeSeconds;
  if (request.durationSeconds) json["durationSeconds"] = *request.durationSeconds;
  if (request.preview) json["preview"] = *request.preview;
  json.update({{"label", request.label}, {"keep", request.keep}, {"wait", request.wait}});
  return json;
}

nlohmann::ordered_json BuildRequest(const IgnitionRequest& request) {
  return {{"command", Command::Ignition}, {"on", request.on}};
}

nlohmann::ordered_json BuildRequest(const ProtectRequest& request) {
  return {{"command", Command::Protect}, {"event", request.event}, {"protected", request.isProtected}};
}

nlohmann::ordered_json BuildRequest(const RemoveRequest& request) {
  return {{"command", Command::Remove}, {"event", request.event}, {"evenProtected", request.evenProtected}};
}

nlohmann::ordered_json BuildRequest(const LabelRequest& request) {
  return {{"command", Command::Label}, {"event", request.event}, {"label", request.label}};
}

nlohmann::ordered_json BuildRequest(const LiveRequest& request) {
  nlohmann::ordered_json json{{"command", Command::Live}};
  if (!request.streams.empty()) json["streams"] = request.streams;
  return json;
}

std::size_t CountCharacters(std::string_view utf8) {
  return static_cast<std::size_t>(
      std::count_if(utf8.begin(), utf8.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

std::string CheckLabel(const std::string& label) {
  if (!Kbase::Json::IsUtf8(label)) return "it is no UTF-8";
  if (HasControlCharacters(label)) return "it has control characters; leave them out";
  const std::size_t characters = CountCharacters(label);
  if (characters <= MaxLabelCharacters) return {};
  return fmt::format("it has {} characters; give at most {}", characters, MaxLabelCharacters);
}

bool IsEventId(const std::string& text) {
  return text.size() == EventIdDigits && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

nlohmann::ordered_json BuildError(const std::string& sentence) {
  return {{"ok", false}, {"error", sentence}};
}

std::string BuildLine(const nlohmann::ordered_json& object) {
  return Kbase::Json::Print(object) + "\n";
}

}  // namespace Tavi::Recorder
