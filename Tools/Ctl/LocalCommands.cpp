// Commands that are carried out here, from the directory of the events.
#include "Tools/Ctl/LocalCommands.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>

#include "EventStore/Verify.h"
#include "Kbase/Json/Json.h"
#include "Tools/Ctl/EventText.h"
#include "Tools/Ctl/EventsDirectory.h"
#include "Tools/Ctl/ReplyText.h"
#include "Tools/Export/Formats.h"
#include "Tools/Tool.h"

namespace Tavi::Ctl {
namespace {

namespace fs = std::filesystem;
using EventStore::EventEntry;
using EventTools::EventData;

struct Chosen {
  EventsDirectory directory;
  std::vector<EventEntry> entries;
};

/// The events that are meant; empty, with the exit status, when one is not there.
std::optional<Chosen> Choose(const CtlOptions& options, int& exitStatus) {
  Trouble trouble;
  auto events = FindEvents(options, trouble);
  if (!events) {
    exitStatus = Complain(trouble.exitStatus, trouble.sentence);
    return std::nullopt;
  }
  if (!events->note.empty()) Complain(0, events->note);
  Chosen chosen{std::move(*events), {}};
  for (const auto& word : options.events) {
    std::string problem;
    const EventEntry* entry = FindEvent(chosen.directory, word, problem);
    if (entry == nullptr) {
      exitStatus = Complain(FailureExitStatus, problem);
      return std::nullopt;
    }
    chosen.entries.push_back(*entry);
  }
  return chosen;
}

struct Format {
  bool ExportOptions::*isWanted;
  const char* suffix;
  std::string (*render)(EventData&);
};

constexpr std::array<Format, 4> Formats{
    {{&ExportOptions::gpx, ".gpx", [](EventData& data) { return EventTools::FormatGpx(data); }},
     {&ExportOptions::csv, ".csv", [](EventData& data) { return EventTools::FormatCsv(data); }},
     {&ExportOptions::geoJson, ".geojson", [](EventData& data) { return EventTools::FormatGeoJson(data); }},
     {&ExportOptions::subtitles, ".vtt",
      [](EventData& data) { return EventTools::FormatClipSubtitles(data, -1, EventTools::SubtitleForm::WebVtt); }}}};

/// The event's directory beside the exported files, as whole as it is here: it can be verified there.
int CopyEvent(const std::string& eventDir, const std::string& outputDir) {
  const fs::path target = fs::path(outputDir) / fs::path(eventDir).filename();
  std::error_code error;
  fs::copy(eventDir, target, fs::copy_options::recursive | fs::copy_options::overwrite_existing, error);
  if (error)
    return Complain(FailureExitStatus,
                    fmt::format("cannot copy {} to {}: {}", eventDir, target.string(), error.message()));
  const auto findings = EventStore::CheckEvent(target.string(), {}).findings;
  if (findings.empty()) return 0;
  return Complain(FailureExitStatus, fmt::format("{}: {}", target.string(), findings.front()));
}

/// A yes on the terminal. What cannot be asked is no.
bool IsConfirmed(const std::string& question) {
  std::cerr << question << " [y/N] " << std::flush;
  std::string answer;
  std::getline(std::cin, answer);
  return answer == "y" || answer == "Y" || answer == "yes";
}

/// An id in full needs no look at the directory.
bool IsWhole(const std::string& word) {
  return Recorder::IsEventId(word);
}

}  // namespace

int Complain(int exitStatus, const std::string& sentence) {
  std::cerr << "tavi-ctl: " + MakePrintable(sentence) + "\n";
  return exitStatus;
}

bool Print(const std::string& text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0) return true;
  Complain(FailureExitStatus, std::string("standard output: ") + std::strerror(errno));
  return false;
}

int RunEvents(const CtlOptions& options) {
  int status = 0;
  const auto chosen = Choose(options, status);
  if (!chosen) return status;
  const auto& events = chosen->directory;
  return Print(options.json ? Kbase::Json::Print(ListEvents(events)) + "\n" : FormatEvents(events)) ? 0
                                                                                                    : FailureExitStatus;
}

int RunShow(const CtlOptions& options) {
  int status = 0;
  const auto chosen = Choose(options, status);
  if (!chosen) return status;
  std::string text;
  for (const auto& entry : chosen->entries) {
    if (options.json) {
      text += Kbase::Json::Print(DescribeEvent(chosen->directory, entry)) + "\n";
    } else {
      text += (text.empty() ? "" : "\n") + FormatEvent(chosen->directory, entry);
    }
  }
  return Print(text) ? 0 : FailureExitStatus;
}

int RunExport(const CtlOptions& options) {
  int worst = 0;
  const auto chosen = Choose(options, worst);
  if (!chosen) return worst;
  const auto& wanted = options.exported;
  const bool isAny = wanted.files || std::ranges::any_of(Formats, [&](const Format& f) { return wanted.*f.isWanted; });
  EventTools::ToolOptions tool{"tavi-ctl", {}, wanted.outputDir + "/", ""};
  for (const auto& entry : chosen->entries) tool.eventDirs.push_back(chosen->directory.GetPath(entry));
  if (const std::string problem = EventTools::CheckDirectories(tool); !problem.empty()) {
    return Complain(UsageExitStatus, problem);
  }
  std::error_code error;
  fs::create_directories(wanted.outputDir, error);
  if (error)
    return Complain(UsageExitStatus,
                    fmt::format("--output: \"{}\" cannot be made: {}", wanted.outputDir, error.message()));
  for (const Format& format : Formats) {
    if (isAny && !(wanted.*format.isWanted)) continue;
    tool.suffix = format.suffix;
    worst = std::max(worst, EventTools::RunTool(tool, format.render));
  }
  for (const auto& dir : tool.eventDirs) {
    if (wanted.files) worst = std::max(worst, CopyEvent(dir, wanted.outputDir));
  }
  return worst;
}

std::vector<std::string> ChooseEvents(const CtlOptions& options, int& exitStatus) {
  const bool isAsked = options.command == Recorder::Command::Remove && !options.isSure;
  if (!isAsked && std::ranges::all_of(options.events, IsWhole)) return options.events;
  if (isAsked && isatty(STDIN_FILENO) == 0) {
    exitStatus =
        Complain(UsageExitStatus, "remove: there is no terminal to ask on; give --yes to remove without being asked");
    return {};
  }
  const auto chosen = Choose(options, exitStatus);
  std::vector<std::string> ids;
  for (const auto& entry : chosen ? chosen->entries : std::vector<EventEntry>()) {
    const std::string question = "Remove event " + NameEvent(chosen->directory, entry) + "?";
    if (!isAsked || IsConfirmed(question)) ids.push_back(entry.id);
  }
  return ids;
}

}  // namespace Tavi::Ctl
