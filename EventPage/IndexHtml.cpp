// The list of events, as a page beside their directories.
#include "EventPage/IndexHtml.h"

#include <fmt/format.h>

#include "EventPage/EventData.h"
#include "EventPage/Markup.h"
#include "EventPage/Template.h"
#include "EventStore/EventName.h"

namespace Tavi::EventTools {
namespace {

using EventStore::EventDescription;

constexpr double KmhPerKnot = 1.852;

/// RFC 3986: all but what is never anything else.
std::string EscapeUrl(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    const bool isPlain = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '-' ||
                         c == '.' || c == '_' || c == '~';
    if (isPlain) {
      escaped += c;
    } else {
      escaped += fmt::format("%{:02X}", static_cast<unsigned char>(c));
    }
  }
  return escaped;
}

std::string DescribeTrigger(const EventDescription& event) {
  if (event.trigger == "request") return "on request";
  if (event.trigger == "acceleration") return "by acceleration";
  return event.trigger == "recovery" ? "recovered" : event.trigger;
}

std::string BuildStill(const EventDescription& event, std::string_view directory) {
  for (const char* type : {"ThumbnailCamera1", "ThumbnailCamera0", "PreviewStill"}) {
    const auto* file = FindFile(event, type);
    if (file == nullptr) continue;
    return fmt::format("<img src=\"{}/{}\" alt=\"\" loading=\"lazy\" width=\"160\" height=\"90\">",
                       EscapeUrl(directory), EscapeUrl(file->name));
  }
  return "<span class=\"still\"></span>";
}

std::string BuildFacts(const EventDescription& event) {
  std::string facts =
      fmt::format("{}, {:.0f} s", EscapeMarkup(DescribeTrigger(event)), EventStore::GetRecordedSeconds(event));
  if (event.maxG) facts += fmt::format(", up to {:.2f} g", *event.maxG);
  if (event.maxSpeedKnots) facts += fmt::format(", up to {:.0f} km/h", *event.maxSpeedKnots * KmhPerKnot);
  return facts;
}

}  // namespace

std::string BuildRow(const EventDescription& event, std::string_view directory, std::string_view laterLabel) {
  const std::string time = EventStore::FormatTime(event.timeMs);
  const bool isCut = event.interrupted || !event.missing.empty();
  return fmt::format(
      "<li><a href=\"{0}/index.html\">{1}<span class=\"text\"><b><time datetime=\"{2}\">{3} {4} UTC</time></b> "
      "<span class=\"label\">{5}{9}</span> <span class=\"facts\">{6}</span>{7}{8}</span></a></li>\n",
      EscapeUrl(directory), BuildStill(event, directory), time, time.substr(0, 10), time.substr(11, 8),
      EscapeMarkup(GetTitle(event)), BuildFacts(event),
      isCut ? " <span class=\"alarm\">not all that was asked for</span>" : "",
      event.seal ? "" : " <span class=\"alarm\">not signed</span>",
      laterLabel.empty() ? "" : " (written later: " + EscapeMarkup(laterLabel) + ")");
}

std::string BuildUnreadableRow(std::string_view directory) {
  return fmt::format(
      "<li><a href=\"{}/\"><span class=\"still\"></span><span class=\"text\"><b>{}</b> "
      "<span class=\"alarm\">its description cannot be read</span></span></a></li>\n",
      EscapeUrl(directory), EscapeMarkup(directory));
}

std::string BuildIndex(const std::vector<std::string_view>& rows) {
  return FillTemplate(Template::Index, [&rows](std::string_view name) -> std::string {
    if (name == "style") return std::string(Template::IndexStyle);
    if (name == "count") return fmt::format("{}", rows.size()) + (rows.size() == 1 ? " event" : " events");
    if (name != "events") return {};
    return rows.empty() ? "<p>There is no event yet.</p>\n" : fmt::format("<ol>\n{}</ol>\n", fmt::join(rows, ""));
  });
}

}  // namespace Tavi::EventTools
