// Keeps the events within the space that they may take.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "EventStore/EventList.h"

namespace Tavi::EventStore {

/// All of them hold at the same time.
struct RetentionLimits {
  /// Of all events together; 0: no limit.
  std::uint64_t maxBytes = 0;
  /// 0: no limit.
  std::uint32_t maxEvents = 0;
  /// What stays free on the file system for everybody else.
  std::uint64_t minFreeBytes = 0;
};

struct RetentionResult {
  /// Names of the directories, in the order of their removal.
  std::vector<std::string> removed;
  /// What is there now.
  std::uint64_t bytesUsed = 0;
  std::uint32_t events = 0;
  std::uint64_t freeBytes = 0;
  /// The limits cannot be met by removing what may be removed: events are protected, or others have filled the disk.
  bool isFull = false;
  /// One sentence when the limits are not met.
  std::string problem;
};

/// Notes that an event is going: its directory, the name that it had, and whether somebody has asked for it. False:
/// once more when there is room again.
using NoteRemoval = std::function<bool(const std::string& directory, const std::string& name, bool isRequested)>;

/// Bytes that may be written to the file system of a path; empty when it cannot be told.
using FreeSpace = std::function<std::optional<std::uint64_t>(const std::string& path)>;

/// Removes events from one directory, the oldest first. Thread-bound.
class Retention {
 public:
  /// An empty `freeSpace` asks the system.
  explicit Retention(std::string eventsDir, FreeSpace freeSpace = {}, NoteRemoval noteRemoval = {});

  /// Removes the oldest events that are not protected until the limits hold; with `bytesNeeded`, until they will hold
  /// with one more event of that size. When all that may go would not be enough, nothing goes. An event loses its name
  /// before its first file, so nobody sees half of one. False, with `result.problem`, when the limits do not hold.
  bool Apply(const RetentionLimits& limits, std::uint64_t bytesNeeded, RetentionResult& result);

  /// Removes the one event because somebody has asked for it, in the same way. False, with one sentence in
  /// `problem`, when there is no such event, when it is protected, unless `evenProtected`, or when the disk refuses.
  [[nodiscard]] bool Remove(const std::string& id, bool evenProtected, std::string& problem);

 private:
  struct Removal {
    bool isRequested = false;
    bool evenProtected = false;
  };
  bool MeasureFree(RetentionResult& result);
  bool RemoveEvent(const std::string& name, Removal removal, bool& isKept, std::string& problem);

  const std::string m_eventsDir;
  EventLister m_lister;
  const FreeSpace m_freeSpace;
  const NoteRemoval m_noteRemoval;
};

}  // namespace Tavi::EventStore
