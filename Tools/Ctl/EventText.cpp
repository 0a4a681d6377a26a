// Events on the disk as text for people, and as JSON for programs.
#include "Tools/Ctl/EventText.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <utility>

#include "EventStore/EventDescription.h"
#include "EventStore/EventName.h"
#include "EventStore/LaterLabel.h"
#include "EventStore/PartName.h"
#include "EventStore/Storage.h"
#include "Kbase/Json/Json.h"
#include "Tools/Ctl/ReplyText.h"

namespace Tavi::Ctl {
namespace {

using EventStore::EventDescription;
using EventStore::EventEntry;
using Json = nlohmann::ordered_json;

constexpr double BytesPerKB = 1e3;
constexpr double BytesPerMB = 1e6;
/// As readers take it.
constexpr std::size_t MaxDescriptionBytes = std::size_t{1} << 20;
constexpr double KilometresPerNauticalMile = 1.852;

/// Sources are called as in the settings, whose cameras' numbers are not those of the files.
std::string NamePart(const EventDescription& event, const std::string& type) {
  return MakePrintable(EventStore::GetPartName(type, event.cameraNames));
}

/// "2026-11-21 13:40:05", UTC; with a "?" when only the unit's own clock tells.
std::string FormatTime(const EventDescription& event) {
  std::string time = EventStore::FormatTime(event.timeMs).substr(0, 19);
  std::ranges::replace(time, 'T', ' ');
  return time + (event.timeSource == EventStore::ReceiverSource ? "" : " ?");
}

std::string FormatLabel(const EventDescription& event, const std::string& later) {
  const std::string label = event.label.empty() ? "-" : MakePrintable(event.label);
  return later.empty() ? label : label + " (written later: " + MakePrintable(later) + ")";
}

std::string FormatSize(std::uint64_t bytes) {
  const auto size = static_cast<double>(bytes);
  return size < BytesPerMB ? fmt::format("{:.0f} kB", std::ceil(size / BytesPerKB))
                           : fmt::format("{:.1f} MB", size / BytesPerMB);
}

/// What was asked for; what there is of an event that was interrupted.
std::string FormatLength(const EventDescription& event) {
  if (!event.interrupted) return fmt::format("{} s", event.durationSeconds);
  return fmt::format("{:.0f} of {} s", EventStore::GetRecordedSeconds(event), event.durationSeconds);
}

std::string FormatMissing(const EventDescription& event) {
  // Once, with the most that is said of it: the reasons overlap.
  std::vector<std::pair<std::string, double>> most;
  for (const auto& part : event.missing) {
    const auto known = std::ranges::find(most, part.type, &std::pair<std::string, double>::first);
    if (known == most.end()) {
      most.emplace_back(part.type, part.seconds);
    } else {
      known->second = std::max(known->second, part.seconds);
    }
  }
  std::string text;
  for (const auto& [type, seconds] : most) {
    text += (text.empty() ? "" : ", ") + NamePart(event, type);
    if (seconds > 0.0) text += fmt::format(" {:.1f} s", seconds);
  }
  return text.empty() ? "-" : text;
}

Json Summarise(const EventsDirectory& events, const EventEntry& entry) {
  Json json{{"event", entry.id},
            {"directory", events.GetPath(entry)},
            {"bytes", entry.bytes},
            {"protected", entry.isProtected},
            {"laterLabel", EventStore::ReadLaterLabel(events.GetPath(entry))}};
  std::string problem;
  const auto event = EventStore::ReadEvent(events.GetPath(entry), problem);
  if (!event) {
    json["problem"] = problem;
    return json;
  }
  json["time"] = EventStore::FormatTime(event->timeMs);
  json["timeSource"] = event->timeSource;
  json["label"] = event->label;
  json["trigger"] = event->trigger;
  json["startSeconds"] = event->startSeconds;
  json["durationSeconds"] = event->durationSeconds;
  json["interrupted"] = event->interrupted;
  json["gotSeconds"] = EventStore::GetRecordedSeconds(*event);
  json["files"] = event->files.size();
  json["missing"] = Json::array();
  for (const auto& part : event->missing) {
    json["missing"].push_back({{"type", part.type}, {"seconds", part.seconds}, {"reason", part.reason}});
  }
  return json;
}

Row FormatRow(const EventsDirectory& events, const EventEntry& entry) {
  std::string problem;
  const auto event = EventStore::ReadEvent(events.GetPath(entry), problem);
  const std::string isProtected = entry.isProtected ? "yes" : "no";
  if (!event) return {entry.id, "-", "-", "-", FormatSize(entry.bytes), isProtected, "its description", "-"};
  return {entry.id,
          FormatTime(*event),
          MakePrintable(event->trigger),
          FormatLength(*event),
          FormatSize(entry.bytes),
          isProtected,
          FormatMissing(*event),
          FormatLabel(*event, EventStore::ReadLaterLabel(events.GetPath(entry)))};
}

void AddMeasured(const EventDescription& event, std::vector<Row>& rows) {
  if (event.position) {
    rows.push_back({"position", fmt::format("{:.6f}, {:.6f} at {}, {:.0f} km/h", event.position->latitude,
                                            event.position->longitude, MakePrintable(event.position->fixTime),
                                            event.position->speedKnots * KilometresPerNauticalMile)});
  }
  if (event.maxSpeedKnots) {
    rows.push_back({"highest speed", fmt::format("{:.0f} km/h", *event.maxSpeedKnots * KilometresPerNauticalMile)});
  }
  if (event.maxG) rows.push_back({"hardest", fmt::format("{:.2f} g", *event.maxG)});
}

void AddParts(const EventDescription& event, std::vector<Row>& rows) {
  for (const auto& stream : event.streams) {
    rows.push_back({NamePart(event, stream.type), fmt::format("{:.1f} s to {:.1f} s, {} entries", stream.fromSeconds,
                                                              stream.toSeconds, stream.entries)});
  }
  for (const auto& part : event.missing) {
    rows.push_back({"missing", NamePart(event, part.type) + ": " + MakePrintable(part.reason)});
  }
  for (const auto& file : event.files)
    rows.push_back({"file", MakePrintable(file.name) + ", " + FormatSize(file.bytes)});
}

}  // namespace

Json ListEvents(const EventsDirectory& events) {
  Json json{{"ok", true}, {"eventsDir", events.path}, {"total", events.entries.size()}, {"events", Json::array()}};
  for (const auto& entry : events.entries) json["events"].push_back(Summarise(events, entry));
  return json;
}

std::string FormatEvents(const EventsDirectory& events) {
  if (events.entries.empty()) return "there are no events in " + events.path + "\n";
  std::vector<Row> rows{{"event", "time (UTC)", "trigger", "length", "size", "protected", "missing", "label"}};
  for (const auto& entry : events.entries) rows.push_back(FormatRow(events, entry));
  return FormatTable(rows);
}

Json DescribeEvent(const EventsDirectory& events, const EventEntry& entry) {
  Json json{{"event", entry.id},
            {"directory", events.GetPath(entry)},
            {"bytes", entry.bytes},
            {"protected", entry.isProtected},
            {"laterLabel", EventStore::ReadLaterLabel(events.GetPath(entry))},
            {"description", nullptr}};
  std::string problem;
  std::string text;
  const std::string path = events.GetPath(entry);
  // As it is: what this program does not know of may be what is asked for.
  if (EventStore::ReadEvent(path, problem) &&
      EventStore::ReadSmallFile(path + "/" + EventStore::EventJsonName, MaxDescriptionBytes, text, problem)) {
    json["description"] = Kbase::Json::Parse(text);
  } else {
    json["problem"] = problem;
  }
  return json;
}

std::string FormatEvent(const EventsDirectory& events, const EventEntry& entry) {
  std::vector<Row> rows{{"event", entry.id}};
  std::string problem;
  const auto event = EventStore::ReadEvent(events.GetPath(entry), problem);
  if (event) {
    const bool isReceivers = event->timeSource == EventStore::ReceiverSource;
    rows.push_back({"time", FormatTime(*event) + " UTC, by the " + (isReceivers ? "receiver" : "system") + "'s clock"});
    rows.push_back({"label", event->label.empty() ? "-" : MakePrintable(event->label)});
    rows.push_back({"trigger", MakePrintable(event->trigger)});
    rows.push_back({"asked for", fmt::format("{} s from {} s on", event->durationSeconds, event->startSeconds)});
    if (event->interrupted)
      rows.push_back({"interrupted", fmt::format("{:.1f} s are there", EventStore::GetRecordedSeconds(*event))});
    AddMeasured(*event, rows);
    AddParts(*event, rows);
    rows.push_back({"signed", event->seal ? fmt::format("as number {} by {}; tavi-verify checks it",
                                                        event->seal->sequence, event->seal->publicKey)
                                          : std::string("no")});
  } else {
    rows.push_back({"missing", MakePrintable(problem)});
  }
  const std::string later = EventStore::ReadLaterLabel(events.GetPath(entry));
  if (!later.empty()) rows.push_back({"written later", MakePrintable(later)});
  rows.push_back({"protected", entry.isProtected ? "yes" : "no"});
  rows.push_back({"size", FormatSize(entry.bytes)});
  rows.push_back({"directory", MakePrintable(events.GetPath(entry))});
  return FormatTable(rows);
}

std::string NameEvent(const EventsDirectory& events, const EventEntry& entry) {
  std::string problem;
  const auto event = EventStore::ReadEvent(events.GetPath(entry), problem);
  if (!event) return entry.id + " (its description cannot be read)";
  const std::string label = event->label.empty() ? "" : "\"" + MakePrintable(event->label) + "\", ";
  return fmt::format("{} of {} ({}, {}{})", entry.id, FormatTime(*event), MakePrintable(event->trigger), label,
                     FormatSize(entry.bytes));
}

}  // namespace Tavi::Ctl
