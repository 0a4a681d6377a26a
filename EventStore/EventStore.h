// The unit's events on persistent storage: room is made, events are written, found and protected.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "EventStore/EventDescription.h"
#include "EventStore/EventList.h"
#include "EventStore/EventWriter.h"
#include "EventStore/Retention.h"

namespace Tavi::EventStore {

enum class SaveResult {
  Saved,
  /// There is no room, and none can be made. The same call succeeds when there is some again.
  Full,
  Failed,
};

/// Writer and retention of one events directory. Thread-safe: one thread at a time writes or removes, and waits for the
/// disk with the lock held; listing and protecting wait for nobody. No acquisition thread may call it.
class EventStore {
 public:
  EventStore(const std::string& eventsDir, const RetentionLimits& limits, const FreeSpace& freeSpace = {});

  /// From now on events are signed and linked; to be called before Open.
  void SignWith(Identity identity) { m_writer.SignWith(std::move(identity)); }
  /// See EventWriter::ShareWith; to be called before Open.
  void ShareWith(gid_t group) { m_writer.ShareWith(group); }
  /// Number of the newest event in the unit's chain; 0 before the first one, and without an identity.
  [[nodiscard]] std::uint64_t GetSequence();

  /// Takes the directory for this process and removes what an interrupted one has left. Call it first; false, with one
  /// sentence in `problem`, when the directory cannot be had.
  [[nodiscard]] bool Open(std::string& problem);

  /// Makes room, then EventWriter::Commit. Unless Saved the sources are where they were, and `problem` says why.
  [[nodiscard]] SaveResult Save(EventDescription& event, const std::vector<SourceFile>& sources, bool isProtected,
                                std::string& eventDir, std::string& problem);

  /// Retention without a new event: after a start, or to see how full it is.
  bool Apply(RetentionResult& result);

  /// Removes an event because somebody has asked for it; see Retention::Remove.
  [[nodiscard]] bool Remove(const std::string& id, bool evenProtected, std::string& problem);

  [[nodiscard]] std::vector<EventEntry> List() const { return ListEvents(m_eventsDir); }
  [[nodiscard]] bool SetProtected(const std::string& id, bool isProtected, std::string& problem) const;

 private:
  const std::string m_eventsDir;
  const RetentionLimits m_limits;
  /// Guards the members below, and makes the room that was found that of the event that is written next.
  std::mutex m_mutex;
  EventWriter m_writer;
  Retention m_retention;
};

}  // namespace Tavi::EventStore
