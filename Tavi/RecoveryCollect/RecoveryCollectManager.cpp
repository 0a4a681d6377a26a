// Finishes, at the next start, the events that a power failure has interrupted.
#include "Tavi/RecoveryCollect/RecoveryCollectManager.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <system_error>
#include <utility>

#include "Ksystem/FileUtils/AsideFile.h"
#include "Ksystem/FileUtils/Kdir.h"
#include "Ksystem/FileUtils/Kfile.h"
#include "Tavi/GstUtil/Log.h"
#include "Tavi/PipelineCollect/CollectBase.h"
#include "Tavi/PipelineCollect/EntryTimes.h"
#include "Tavi/RecoveryCollect/EventFileName.h"
#include "Tavi/RecoveryCollect/EventRecovery.h"
#include "Tavi/RecoveryCollect/MoveFile.h"
#include "Tavi/RecoveryCollect/RecoveryAttempts.h"
#include "Tavi/RecoveryCollect/RestoreDirectory.h"
#include "Tavi/RecoveryCollect/WorkDirectory.h"

namespace Tavi::RecoveryCollect {
namespace {

using Ksystem::FileUtils::AsideFile;
using Ksystem::FileUtils::Kdir;
using Ksystem::FileUtils::Kfile;

/// A copy between file systems on its way; no name that anything else bears.
constexpr const char* MoveAside = ".moving";

std::string WithSlash(const std::string& dir) {
  return dir.empty() || dir.back() == '/' ? dir : dir + "/";
}

/// What is moved into the directory that it comes from would be taken for moved already, and removed.
bool AreApart(const std::string& from, const std::string& to) {
  std::error_code error;
  if (!to.empty() && !std::filesystem::equivalent(from, to, error)) return true;
  Log::Error("cannot move files from " + from + " to " + (to.empty() ? "nowhere" : to));
  return false;
}

void LogUnrecovered(const EventSources& event, const std::string& outputDir) {
  for (const auto& source : event.paths) {
    Log::Error("cannot recover " + source.second + " into " + outputDir + ": it stays where it is");
  }
}

/// Puts the names of the events that another run can make more of into `incomplete`.
bool RecoverEvents(const RecoveryCollectInput& input, const std::vector<EventSources>& events,
                   std::set<std::string>& incomplete) {
  RecoveryAttempts attempts(input.restoreDir);
  if (events.empty() && !WorkDirectory::IsLeftIn(input.outputDir)) return true;
  const WorkDirectory work(input.outputDir);
  bool recovered = true;
  for (const auto& event : events) {
    EventRecovery::Result result;
    if (work.IsValid()) {
      result = EventRecovery(input, work, attempts, event).Recover();
    } else {
      LogUnrecovered(event, input.outputDir);
    }
    recovered = recovered && result.isRecovered;
    if (!result.isComplete) incomplete.insert(event.name);
  }
  return (events.empty() || Kdir::Sync(input.restoreDir)) && recovered;
}

/// What the companion of a product tells of its entries, in the time of the event.
std::optional<PipelineCollect::CollectedWindow> ReadWindow(const std::string& path) {
  const auto times = PipelineCollect::ReadTimesOf(path);
  if (!times || times->entries.empty()) return std::nullopt;
  const auto seconds = times->GetSeconds();
  PipelineCollect::CollectedWindow window;
  window.fromSeconds = seconds.front();
  window.toSeconds = seconds.back();
  window.entries = seconds.size();
  window.fps = static_cast<float>(times->rate);
  window.firstTimestampNs = times->entries.front().timestampNs;
  window.lastTimestampNs = times->entries.back().timestampNs;
  return window;
}

/// Removes a companion whose product somebody has moved away.
void RemoveIfOrphan(const std::string& path) {
  const std::string product = path.substr(0, path.size() - PipelineCollect::TimesSuffix.size());
  if (!PipelineCollect::CollectBase::IsPathAvailable(product)) Kfile(path).Remove();
}

/// Adds one product to its event; the time is that of the oldest product so far.
void AddProduct(RecoveredEvent& event, PipelineCollect::PipelineCollectType type, const std::string& path) {
  struct stat attributes {};
  if (::stat(path.c_str(), &attributes) != 0 || attributes.st_size == 0) return;
  const auto fileTime = static_cast<std::int64_t>(attributes.st_mtime);
  auto& output = event.output;
  output.eventTime = output.outputs.empty() ? fileTime : std::min(output.eventTime, fileTime);
  output.AddOutput(type, path);
  if (const auto window = ReadWindow(path)) output.windows[type] = *window;
}

/// Reads the record off the output directory, where an interrupted run's work is as good as this one's. The files of
/// ordinary events are not meant.
bool ListProducts(const std::string& outputDir, std::vector<RecoveredEvent>& events) {
  std::vector<std::string> names;
  const bool read = ListDirectory(outputDir, names);
  std::map<std::string, RecoveredEvent> byName;
  for (const auto& fileName : names) {
    const auto parsed = ParseProductName(fileName);
    if (!parsed || IsUid(parsed->event) || !IsRegularFile(outputDir + fileName)) continue;
    if (parsed->isTimes) {
      RemoveIfOrphan(outputDir + fileName);
      continue;
    }
    AddProduct(byName[parsed->event], parsed->type, outputDir + fileName);
  }
  for (auto& [name, event] : byName) {
    if (event.output.outputs.empty()) continue;
    event.name = name;
    const auto time = ParseEventTime(name);
    if (time) event.output.eventTime = time->time;
    if (time) event.seconds = time->seconds;
    events.push_back(std::move(event));
  }
  return read;
}

bool Contains(const std::vector<EventSources>& events, const std::string& name) {
  return std::ranges::any_of(events, [&](const EventSources& event) { return event.name == name; });
}

void ListLeftovers(const std::string& restoreDir, std::vector<std::string>& leftovers) {
  ListDirectory(restoreDir, leftovers);
  std::erase_if(leftovers, RecoveryAttempts::IsOwnFile);
  for (auto& name : leftovers) name.insert(0, restoreDir);
}

}  // namespace

bool RecoveryCollectManager::MoveBackup(const std::string& backupDir, const std::string& restoreDir) {
  const std::string from = WithSlash(backupDir);
  const std::string to = WithSlash(restoreDir);
  if (!AreApart(from, to)) return false;
  const std::string aside = to + MoveAside;
  std::vector<std::string> names;
  bool moved = ListDirectory(from, names);
  // Half copies of a run that was interrupted; what they were copies of is still in the backup directory.
  moved = Kfile(aside).Remove() && Kfile(AsideFile::GetAsidePathOf(aside)).Remove() && moved;
  if (names.empty()) return moved;
  // Without the directory each move fails, with a line in the log that names the file.
  moved = Kdir(to).Create() && moved;
  for (const auto& name : names) {
    if (!IsRegularFile(from + name)) {
      // What is hidden is there on purpose.
      if (!name.starts_with('.')) Log::Warning(from + name + " is no file: left alone");
    } else {
      moved = MoveFile(from + name, to + name, aside) && moved;
    }
  }
  return Kdir::Sync(from) && moved;
}

bool RecoveryCollectManager::Collect(RecoveryCollectInput& input, RecoveryCollectOutput& output) {
  output = {};
  input.restoreDir = WithSlash(input.restoreDir);
  input.outputDir = WithSlash(input.outputDir);
  if (!AreApart(input.restoreDir, input.outputDir)) return false;
  RestoreContent content;
  bool recovered = ReadRestoreDirectory(input.restoreDir, content);
  for (const auto& [path, what] : content.others) Log::Warning(path + " is " + what + ": left alone");
  std::set<std::string> incomplete;
  recovered = RecoverEvents(input, content.events, incomplete) && recovered;
  recovered = ListProducts(input.outputDir, output.events) && recovered;
  for (auto& event : output.events) {
    event.isNew = Contains(content.events, event.name);
    event.isComplete = !incomplete.contains(event.name);
  }
  ListLeftovers(input.restoreDir, output.leftovers);
  return recovered;
}

}  // namespace Tavi::RecoveryCollect
