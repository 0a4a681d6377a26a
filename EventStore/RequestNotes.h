// Requests whose events are not complete yet, as they must be known after a power failure.
#pragma once

#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "EventStore/EventDescription.h"

namespace Tavi::EventStore {

struct RequestNote {
  /// Without files and streams.
  EventDescription request;
  bool isProtected = false;
};

/// One hidden directory a request beside the events: what was asked for, why and where is on the disk before the event
/// is, for what power interrupts is saved without a word of that. Thread-safe; blocks on the disk with the lock held,
/// so no acquisition thread may call it.
class RequestNotes {
 public:
  explicit RequestNotes(std::string eventsDir);

  /// Writes the request down, synced. A note that cannot be written is logged and costs no event.
  void Add(const RequestNote& note);
  /// The request is settled: its note goes. One that is still to be added will not be.
  void Remove(const std::string& id);
  /// What no process has settled, the oldest request first. A note that is none, or not whole, is logged
  /// and goes; one that the disk does not give is logged and stays.
  [[nodiscard]] std::vector<RequestNote> Read();

 private:
  [[nodiscard]] std::string GetPath(const std::string& id) const;

  const std::string m_eventsDir;
  /// Guards the members below and the files.
  std::mutex m_mutex;
  std::set<std::string> m_added;
  /// Settled before they were added.
  std::set<std::string> m_settled;
};

}  // namespace Tavi::EventStore
