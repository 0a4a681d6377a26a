// What lies in the restore directory, sorted by event.
#include "Tavi/RecoveryCollect/RestoreDirectory.h"

#include <sys/stat.h>

#include "Ksystem/FileUtils/Kdir.h"
#include "Tavi/GstUtil/Log.h"
#include "Tavi/PipelineCollect/CollectBase.h"
#include "Tavi/RecoveryCollect/EventFileName.h"

namespace Tavi::RecoveryCollect {
namespace {

using EventMap = std::map<std::string, EventSources>;

/// Takes the file into its event; otherwise says what it is.
std::string AddTo(EventMap& events, const std::string& dir, const std::string& fileName) {
  const auto parsed = ParseBackupName(fileName);
  if (!parsed || !IsRegularFile(dir + fileName)) return "no file of an event";
  if (!PipelineCollect::CollectBase::IsPathAvailable(dir + fileName)) return "an empty file";
  EventSources& event = events[parsed->event];
  event.name = parsed->event;
  // The names are sorted: the whole file comes before its half copy.
  return event.paths.emplace(parsed->type, dir + fileName).second ? "" : "another copy of a file of this event";
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
    const std::string other = AddTo(events, dir, name);
    if (!other.empty()) content.others.emplace(dir + name, other);
  }
  for (auto& [name, event] : events) content.events.push_back(std::move(event));
  return read;
}

}  // namespace Tavi::RecoveryCollect
