// An event as a page for any browser.
#include "EventPage/PageHtml.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

#include "EventPage/Markup.h"
#include "EventPage/Template.h"
#include "Kbase/Json/Json.h"

namespace Tavi::EventTools {
namespace {

using Json = nlohmann::ordered_json;

/// What a browser takes as one text: the limit is some 500 MB, and base64 adds a third.
constexpr std::size_t MaxClipBytes = 300'000'000;

struct Embedded {
  const char* type;
  const char* mime;
};
constexpr Embedded Clips[] = {{"VideoCamera1", "video/mp4"}, {"VideoCamera0", "video/mp4"}};
constexpr Embedded Stills[] = {{"ThumbnailCamera1", "image/jpeg"}, {"ThumbnailCamera0", "image/jpeg"}};
/// The clips carry the event's sound; the file of its own is needed only where there is none of them.
constexpr Embedded Sound = {"Audio", "audio/mpeg"};

/// What the page may load: only itself, or what lies beside it as well. Neither may go anywhere else.
constexpr std::string_view ClosedPolicy =
    "default-src 'none'; media-src blob:; img-src data: blob:; style-src 'unsafe-inline'; script-src 'unsafe-inline'; "
    "form-action 'none'; base-uri 'none'";
constexpr std::string_view BesidePolicy =
    "default-src 'none'; media-src 'self' file: blob:; img-src 'self' file: data: blob:; connect-src 'self'; "
    "style-src 'unsafe-inline'; script-src 'unsafe-inline'; form-action 'none'; base-uri 'none'";

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
std::string FormatScriptJson(const EventData& data, bool isBesideFiles) {
  Json json;
  json["event"] = Kbase::Json::Parse(EventStore::FormatEvent(data.description));
  json["laterLabel"] = data.laterLabel;
  json["gps"] = ToJson(data.gps);
  json["acc"] = ToJson(data.acc);
  json["other"] = ToJson(data.other);
  json["problems"] = data.problems;
  json["isChecked"] = data.isChecked;
  json["isBesideFiles"] = isBesideFiles;
  std::string text;
  for (const char c : Kbase::Json::Print(json)) {
    if (c == '<')
      text += "\\u003c";
    else
      text += c;
  }
  return text;
}

/// False when the event has no such file, or none that can be read.
bool Append(EventData& data, const Embedded& file, std::string& html) {
  std::string content;
  std::string problem;
  if (!ReadEventFile(data, file.type, MaxClipBytes, content, problem)) {
    const bool isKnown = std::find(data.problems.begin(), data.problems.end(), problem) != data.problems.end();
    if (!problem.empty() && !isKnown) data.problems.push_back(problem);
    return false;
  }
  html += fmt::format("<script type=\"text/plain\" class=\"media\" data-type=\"{}\" data-mime=\"{}\">", file.type,
                      file.mime);
  AppendBase64(content, html);
  html += "</script>\n";
  return true;
}

std::string BuildMedia(EventData& data) {
  std::string html;
  bool isWithClip = false;
  for (const Embedded& clip : Clips) isWithClip = Append(data, clip, html) || isWithClip;
  if (!isWithClip) Append(data, Sound, html);
  for (const Embedded& still : Stills) Append(data, still, html);
  return html;
}

std::string Build(const EventData& data, bool isBesideFiles, std::string_view media) {
  return FillTemplate(Template::Page, [&](std::string_view name) -> std::string {
    if (name == "title") return EscapeMarkup(GetTitle(data.description));
    if (name == "policy") return std::string(isBesideFiles ? BesidePolicy : ClosedPolicy);
    if (name == "style") return std::string(Template::Style);
    if (name == "script") return std::string(Template::Script);
    if (name == "media") return std::string(media);
    return name == "data" ? FormatScriptJson(data, isBesideFiles) : "";
  });
}

}  // namespace

std::string BuildPage(EventData& data) {
  // First, for what cannot be read becomes one of the problems that the page names.
  const std::string media = BuildMedia(data);
  return Build(data, false, media);
}

std::string BuildPageBesideFiles(const EventData& data) {
  return Build(data, true, {});
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
