// The events that are there.
#include "EventStore/EventList.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>

#include "EventStore/EventDescription.h"
#include "EventStore/EventName.h"
#include "EventStore/Storage.h"

namespace Tavi::EventStore {
namespace {

bool IsEvent(const std::string& eventsDir, const std::string& name) {
  return IsEventDirName(name) && IsDirectory(eventsDir + "/" + name);
}

/// Products lie flat in their directory.
EventEntry LookAt(const std::string& eventsDir, const std::string& name) {
  EventEntry entry{name, GetEventId(name)};
  const std::string dir = eventsDir + "/" + name + "/";
  for (const std::string& file : ListNames(dir)) {
    struct stat attributes {};
    if (::lstat((dir + file).c_str(), &attributes) != 0) continue;
    entry.bytes += static_cast<std::uint64_t>(attributes.st_size);
    if (file == EventJsonName) entry.savedNs = ToNs(attributes.st_mtim);
  }
  return entry;
}

bool MakeMarker(const std::string& dir, const std::string& marker, std::string& problem) {
  if (!WriteSynced(marker, "", problem) || !SyncDirectory(dir, problem)) return false;
  // Retention looks for the marker once more when it has taken the name away: it was either seen, or it is too late.
  return Exists(marker) || Fail("protect", dir, problem);
}

bool RemoveMarker(const std::string& dir, const std::string& marker, std::string& problem) {
  if (::unlink(marker.c_str()) != 0) return errno == ENOENT || Fail("remove", marker, problem);
  return SyncDirectory(dir, problem);
}

}  // namespace

std::vector<EventEntry> ListEvents(const std::string& eventsDir) {
  return EventLister(eventsDir).List();
}

std::vector<EventEntry> EventLister::List() {
  std::map<std::string, EventEntry, std::less<>> found;
  std::vector<EventEntry> entries;
  for (const std::string& name : ListNames(m_eventsDir)) {
    if (!IsEventDirName(name)) continue;
    const std::string dir = m_eventsDir + "/" + name;
    struct stat attributes {};
    if (::lstat(dir.c_str(), &attributes) != 0 || !S_ISDIR(attributes.st_mode)) continue;
    const std::int64_t changedNs = ToNs(attributes.st_mtim);
    const auto known = m_known.find(name);
    const bool isSame = known != m_known.end() && known->second.changedNs == changedNs;
    EventEntry entry = isSame ? std::move(known->second) : LookAt(m_eventsDir, name);
    entry.isProtected = Exists(dir + "/" + ProtectedMarker);
    entry.changedNs = changedNs;
    entries.push_back(entry);
    found.emplace_hint(found.end(), name, std::move(entry));
  }
  m_known.swap(found);
  std::stable_sort(entries.begin(), entries.end(),
                   [](const EventEntry& a, const EventEntry& b) { return a.savedNs < b.savedNs; });
  return entries;
}

bool SetProtected(const std::string& eventsDir, const std::string& id, bool isProtected, std::string& problem) {
  for (const std::string& name : ListNames(eventsDir)) {
    if (!IsEvent(eventsDir, name) || GetEventId(name) != id) continue;
    const std::string dir = eventsDir + "/" + name;
    const std::string marker = dir + "/" + ProtectedMarker;
    return isProtected ? MakeMarker(dir, marker, problem) : RemoveMarker(dir, marker, problem);
  }
  problem = fmt::format("there is no event {} in {}", id, eventsDir);
  return false;
}

}  // namespace Tavi::EventStore
