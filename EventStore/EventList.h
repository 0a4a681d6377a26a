// The events that are there.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace Tavi::EventStore {

/// The file that keeps an event from retention.
inline constexpr const char* ProtectedMarker = "protected";

struct EventEntry {
  /// Of the directory.
  std::string name;
  std::string id;
  /// Of all files in it.
  std::uint64_t bytes = 0;
  /// When it was saved, Unix time in nanoseconds, later than of the event saved before even where the clock was set
  /// back; the modification time of its event.json.
  std::int64_t savedNs = 0;
  bool isProtected = false;
  /// When something in the directory was last added or removed, as it tells itself.
  std::int64_t changedNs = 0;
};

/// Complete events in the order in which they were saved; nothing else that is in `eventsDir`. Empty also when there is
/// no such directory; one that cannot be read is logged. Reentrant, also beside a commit and beside retention, in
/// whichever process.
std::vector<EventEntry> ListEvents(const std::string& eventsDir);

/// ListEvents for whoever asks often: looks into an event once more only when its directory has changed, as for its
/// page.
/// Thread-bound.
class EventLister {
 public:
  explicit EventLister(std::string eventsDir) : m_eventsDir(std::move(eventsDir)) {}
  std::vector<EventEntry> List();

 private:
  const std::string m_eventsDir;
  /// By the name of the directory.
  std::map<std::string, EventEntry, std::less<>> m_known;
};

/// Makes or removes the marker, synced; true also when nothing was to be done. False, with one sentence in `problem`,
/// when there is no such event (any more) or the disk refuses. True for a protection means that the event is there and
/// stays, even when retention was about to remove it. Reentrant as ListEvents is.
[[nodiscard]] bool SetProtected(const std::string& eventsDir, const std::string& id, bool isProtected,
                                std::string& problem);

}  // namespace Tavi::EventStore
