// What lies in the restore directory, sorted by event.
#include "Tavi/RecoveryCollect/RestoreDirectory.h"

#include <sys/stat.h>

#include <utility>

#include "Ksystem/FileUtils/Kdir.h"
#include "Tavi/GstUtil/Log.h"
#include "Tavi/PipelineCollect/CollectBase.h"
#include "Tavi/RecoveryCollect/EventFileName.h"
#include "Tavi/RecoveryCollect/RecoveryAttempts.h"

namespace Tavi::RecoveryCollect {
namespace {

using EventMap = std::map<std::string, EventSources>;

/// Of two copies of one stream the one with more of this is the better one: an MP4 has its name when it is whole, half
/// of one cannot be played.
int GetWorth(const EventFileName& name) {
  if (name.isHalf) return name.isMuxed ? 0 : 1;
  return name.isMuxed ? 3 : 2;
}

/// Takes the file into its event; otherwise says what it is.
std::string AddTo(EventMap& events, const std::string& dir, const std::string& fileName) {
  const auto parsed = ParseBackupName(fileName);
  if (!parsed || !IsRegularFile(dir + fileName)) return "no file of an event";
  if (!PipelineCollect::CollectBase::IsPathAvailable(dir + fileName)) return "an empty file";
  EventSources& event = events[parsed->event];
  event.name = parsed->event;
  auto& chosen = parsed->isTimes ? event.times : event.paths;
  const auto [known, isFirst] = chosen.emplace(parsed->type, dir + fileName);
  if (isFirst) return "";
  std::string spare = dir + fileName;
  if (GetWorth(*parsed) > GetWorth(*ParseBackupName(known->second.substr(dir.size())))) known->second.swap(spare);
  event.spares.push_back(std::move(spare));
  return "";
}

}  // namespace

bool IsRegularFile(const std::string& path) {
  struct stat attributes {};
  return ::lstat(path.c_str(), &attributes) == 0 && S_ISREG(attributes.st_mode);
}

bool ListDirectory(const std::string& dir, std::vector<std::string>& names) {
  const auto error = Ksystem::FileUtils::Kdir(dir).List(names);
  if (error) Log::Error("cannot read the directory " + dir + ": " + error.message());
  return !error;
}

bool ReadRestoreDirectory(const std::string& dir, RestoreContent& content) {
  std::vector<std::string> names;
  const bool read = ListDirectory(dir, names);
  EventMap events;
  for (const auto& name : names) {
    if (RecoveryAttempts::IsOwnFile(name)) continue;
    const std::string other = AddTo(events, dir, name);
    if (!other.empty()) content.others.emplace(dir + name, other);
  }
  for (auto& [name, event] : events) content.events.push_back(std::move(event));
  return read;
}

}  // namespace Tavi::RecoveryCollect
