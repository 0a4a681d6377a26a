// Requests whose events are not complete yet, as they must be known after a power failure.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "EventStore/EventDescription.h"

namespace Tavi::EventStore {

struct RequestNote {
  /// Without files and streams.
  EventDescription request;
  bool isProtected = false;
  /// The event's moment by this process's monotonic clock. Not written down; empty in what Read gives.
  std::optional<std::chrono::steady_clock::time_point> moment = std::nullopt;
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
  /// Writes each note anew that `change` returns true for, which is called with the lock held: one that power
  /// interrupts is as it was before.
  void Rewrite(const std::function<bool(RequestNote&)>& change);
  /// What no process has settled, the oldest request first. A note that is none, or not whole, is logged
  /// and goes; one that the disk does not give is logged and stays.
  [[nodiscard]] std::vector<RequestNote> Read();

 private:
  [[nodiscard]] std::string GetPath(const std::string& id) const;

  const std::string m_eventsDir;
  /// Guards the members below and the files.
  std::mutex m_mutex;
  std::map<std::string, RequestNote> m_added;
  /// Settled before they were added.
  std::set<std::string> m_settled;
};

}  // namespace Tavi::EventStore
