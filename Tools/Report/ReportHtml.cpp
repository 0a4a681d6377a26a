// The report of an event: one page that needs nothing else.
#include "Tools/Report/ReportHtml.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

#include "Kbase/Json/Json.h"
#include "Tools/Markup.h"
#include "Tools/Report/Template.h"

namespace Tavi::EventTools {
namespace {

using Json = nlohmann::ordered_json;

/// What a browser takes as one text: the limit is some 500 MB, and base64 adds a third.
constexpr std::size_t MaxClipBytes = 300'000'000;

struct Clip {
  const char* type;
  const char* mime;
};
constexpr Clip Clips[] = {{"VideoCamera1", "video/mp4"}, {"VideoCamera0", "video/mp4"}};
/// The clips carry the event's sound; the file of its own is needed only where there is none of them.
constexpr Clip Sound = {"Audio", "audio/mpeg"};

/// A list of [seconds, value...] with null for what a record does not have.
Json ToJson(const SensorRecords<Fix>& gps) {
  Json list = Json::array();
  for (const Fix& fix : gps.records) {
    Json row = Json::array({fix.secondsFromEvent});
    if (fix.isValid) row.insert(row.end(), {fix.latitude, fix.longitude, fix.speedKnots, fix.courseDegrees});
    list.push_back(std::move(row));
  }
  return {{"records", std::move(list)}, {"problem", gps.problem}};
}

Json ToJson(const SensorRecords<AccSample>& acc) {
  Json list = Json::array();
  for (const auto& [seconds, g] : acc.records) list.push_back({seconds, g[0], g[1], g[2]});
  return {{"records", std::move(list)}, {"problem", acc.problem}};
}

Json ToJson(const SensorRecords<MetricSample>& other) {
  const auto orNull = [](const std::optional<int>& value) { return value ? Json(*value) : Json(nullptr); };
  Json list = Json::array();
  for (const auto& [seconds, cpu, temperature] : other.records) {
    list.push_back(Json::array({seconds, orNull(cpu), orNull(temperature)}));
  }
  return {{"records", std::move(list)}, {"problem", other.problem}};
}

/// As the content of a script element, which ends at the first "</script", whatever stands around it.
std::string FormatScriptJson(const EventData& data) {
  Json json;
  json["event"] = Kbase::Json::Parse(EventStore::FormatEvent(data.description));
  json["gps"] = ToJson(data.gps);
  json["acc"] = ToJson(data.acc);
  json["other"] = ToJson(data.other);
  json["problems"] = data.problems;
  std::string text;
  for (const char c : Kbase::Json::Print(json)) {
    if (c == '<')
      text += "\\u003c";
    else
      text += c;
  }
  return text;
}

/// False when the event has no such clip, or none that can be read.
bool AppendClip(EventData& data, const Clip& clip, std::string& html) {
  std::string content;
  std::string problem;
  if (!ReadEventFile(data, clip.type, MaxClipBytes, content, problem)) {
    const bool isKnown = std::find(data.problems.begin(), data.problems.end(), problem) != data.problems.end();
    if (!problem.empty() && !isKnown) data.problems.push_back(problem);
    return false;
  }
  html += fmt::format("<script type=\"text/plain\" class=\"clip\" data-type=\"{}\" data-mime=\"{}\">", clip.type,
                      clip.mime);
  AppendBase64(content, html);
  html += "</script>\n";
  return true;
}

std::string BuildClips(EventData& data) {
  std::string html;
  bool isWithClip = false;
  for (const Clip& clip : Clips) isWithClip = AppendClip(data, clip, html) || isWithClip;
  if (!isWithClip) AppendClip(data, Sound, html);
  return html;
}

std::string Fill(std::string_view name, EventData& data) {
  if (name == "title") return EscapeMarkup(GetTitle(data.description));
  if (name == "style") return std::string(Template::Style);
  if (name == "script") return std::string(Template::Script);
  if (name == "clips") return BuildClips(data);
  return name == "data" ? FormatScriptJson(data) : "";
}

}  // namespace

std::string BuildReport(EventData& data) {
  constexpr std::string_view Open = "{{";
  constexpr std::string_view Close = "}}";
  std::string html;
  std::string_view rest = Template::Page;
  for (auto at = rest.find(Open); at != std::string_view::npos; at = rest.find(Open)) {
    const auto end = rest.find(Close, at);
    html += rest.substr(0, at);
    html += Fill(rest.substr(at + Open.size(), end - at - Open.size()), data);
    rest.remove_prefix(end + Close.size());
  }
  return html.append(rest);
}

void AppendBase64(std::string_view bytes, std::string& text) {
  constexpr char Digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  const auto at = [bytes](std::size_t i) {
    return i < bytes.size() ? static_cast<unsigned int>(static_cast<unsigned char>(bytes[i])) : 0U;
  };
  std::size_t out = text.size();
  text.resize(out + (bytes.size() + 2) / 3 * 4, '=');
  for (std::size_t i = 0; i < bytes.size(); i += 3, out += 4) {
    const unsigned int group = at(i) << 16 | at(i + 1) << 8 | at(i + 2);
    const std::size_t digits = std::min<std::size_t>(bytes.size() - i, 3) + 1;
    for (std::size_t digit = 0; digit < digits; ++digit) text[out + digit] = Digits[group >> (18 - 6 * digit) & 63U];
  }
}

}  // namespace Tavi::EventTools
