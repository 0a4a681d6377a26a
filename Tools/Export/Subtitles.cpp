// Speed and position as subtitles of a clip.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <iterator>

#include "EventStore/EventName.h"
#include "EventStore/PartName.h"
#include "Tools/Export/Formats.h"

namespace Tavi::EventTools {
namespace {

/// The international nautical mile has 1852 metres.
constexpr double KilometresPerKnotHour = 1.852;

std::string FormatMoment(double seconds, SubtitleForm form) {
  const auto ms = std::llround(seconds * 1000.0);
  return fmt::format("{:02}:{:02}:{:02}{}{:03}", ms / 3'600'000, ms / 60'000 % 60, ms / 1000 % 60,
                     form == SubtitleForm::Srt ? ',' : '.', ms % 1000);
}

std::string FormatText(const EventData& data, const Fix& fix) {
  if (!fix.isValid) {
    return "no position   " + EventStore::FormatTime(GetUtcMs(data.description, fix.secondsFromEvent)).substr(11, 8) +
           " UTC";
  }
  return fmt::format("{:.1f} km/h   {} UTC\n{:.6f}° {}, {:.6f}° {}", fix.speedKnots * KilometresPerKnotHour,
                     EventStore::FormatTime(fix.utcMs).substr(11, 8), std::fabs(fix.latitude),
                     fix.latitude < 0 ? 'S' : 'N', std::fabs(fix.longitude), fix.longitude < 0 ? 'W' : 'E');
}

/// The types have each other's numbers.
const char* GetClipType(const EventData& data, int camera) {
  constexpr const char* Types[] = {"VideoCamera1", "VideoCamera0"};
  const bool isSecond = camera == 1 || (camera < 0 && FindStream(data.description, Types[0]) == nullptr &&
                                        FindStream(data.description, Types[1]) != nullptr);
  return Types[isSecond ? 1 : 0];
}

/// The format's first line may say more behind its name.
std::string NameCamera(std::string subtitles, const std::string& name) {
  constexpr std::string_view Signature = "WEBVTT";
  if (subtitles.starts_with(Signature) && name.find("-->") == std::string::npos) {
    subtitles.insert(Signature.size(), " " + name);
  }
  return subtitles;
}

}  // namespace

std::string FormatSubtitles(const EventData& data, double clipFromSeconds, SubtitleForm form) {
  /// A day: what a damaged description places beyond it is no part of a clip.
  constexpr double Longest = 86'400.0;
  const auto& fixes = data.gps.records;
  std::string text = form == SubtitleForm::WebVtt ? "WEBVTT\n\n" : "";
  int number = 0;
  for (std::size_t i = 0; i < fixes.size(); ++i) {
    const double interval = i + 1 < fixes.size() ? fixes[i + 1].secondsFromEvent - fixes[i].secondsFromEvent
                            : i > 0              ? fixes[i].secondsFromEvent - fixes[i - 1].secondsFromEvent
                                                 : 1.0;
    const double start = fixes[i].secondsFromEvent - clipFromSeconds;
    if (!(start + interval > 0.0) || start > Longest) continue;
    if (form == SubtitleForm::Srt) text += fmt::format("{}\n", ++number);
    text += fmt::format("{} --> {}\n{}\n\n", FormatMoment(std::max(start, 0.0), form),
                        FormatMoment(start + interval, form), FormatText(data, fixes[i]));
  }
  return text;
}

std::string FormatClipSubtitles(const EventData& data, int camera, SubtitleForm form) {
  const char* type = GetClipType(data, camera);
  const auto* stream = FindStream(data.description, type);
  const double start = stream != nullptr ? stream->fromSeconds : data.description.startSeconds;
  return NameCamera(FormatSubtitles(data, start, form), EventStore::GetPartName(type, data.description.cameraNames));
}

}  // namespace Tavi::EventTools
