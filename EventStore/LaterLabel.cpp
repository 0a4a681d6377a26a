// What people write about an event after it was saved.
#include "EventStore/LaterLabel.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "EventStore/EventName.h"
#include "EventStore/Storage.h"
#include "Kbase/Json/Json.h"

namespace Tavi::EventStore {
namespace {

bool Write(const std::string& dir, const std::string& label, std::string& problem) {
  const std::string aside = dir + "/" + NewLaterLabelName;
  return WriteSynced(aside, label + "\n", problem) && Rename(aside, dir + "/" + LaterLabelName, problem) &&
         SyncDirectory(dir, problem);
}

bool Remove(const std::string& dir, std::string& problem) {
  const std::string path = dir + "/" + LaterLabelName;
  if (::unlink(path.c_str()) != 0) return errno == ENOENT || Fail("remove", path, problem);
  return SyncDirectory(dir, problem);
}

}  // namespace

std::string ReadLaterLabel(const std::string& eventDir) {
  const std::string path = eventDir + "/" + LaterLabelName;
  std::string text;
  std::string problem;
  if (!Exists(path) || !ReadSmallFile(path, MaxLaterLabelBytes + 1, text, problem)) return {};
  if (text.empty() || text.back() != '\n' || text.find('\n') != text.size() - 1 || !Kbase::Json::IsUtf8(text))
    return {};
  text.pop_back();
  return text;
}

std::int64_t GetLaterLabelTime(const std::string& eventDir) {
  struct stat attributes {};
  const std::string path = eventDir + "/" + LaterLabelName;
  return ::lstat(path.c_str(), &attributes) == 0 ? ToNs(attributes.st_mtim) : 0;
}

bool SetLaterLabel(const std::string& eventsDir, const std::string& id, const std::string& label,
                   std::string& problem) {
  for (const std::string& name : ListNames(eventsDir)) {
    const std::string dir = eventsDir + "/" + name;
    if (!IsEventDirName(name) || GetEventId(name) != id || !IsDirectory(dir)) continue;
    return label.empty() ? Remove(dir, problem) : Write(dir, label, problem);
  }
  problem = fmt::format("there is no event {} in {}", id, eventsDir);
  return false;
}

}  // namespace Tavi::EventStore
