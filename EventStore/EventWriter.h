// Makes event directories: complete under their final name, or not there.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "EventStore/Chain.h"
#include "EventStore/DirectoryLock.h"
#include "EventStore/EventDescription.h"
#include "EventStore/FileTransfer.h"

namespace Tavi::EventStore {

/// Writes into one events directory, which it creates when it is missing. Owns the lock on it. Thread-bound; readers of
/// the directory need no lock, they see whole events only.
class EventWriter {
 public:
  explicit EventWriter(std::string eventsDir);

  /// From now on events are signed by it, and linked. To be called before CleanUp.
  void SignWith(Identity identity) { m_chain.emplace(m_eventsDir, std::move(identity)); }
  /// Whose members may read the events, those that are there already included; without one it is the process's own
  /// group, or what a directory hands down to what is made in it. To be called before Lock.
  void ShareWith(gid_t group) { m_group = group; }
  /// Null without an identity.
  [[nodiscard]] const Chain* GetChain() const { return m_chain ? &*m_chain : nullptr; }
  /// To be called when an event has lost its name and is about to lose its files.
  [[nodiscard]] bool NoteRemoved(const std::string& directory, const std::string& name, bool isRequested) {
    return !m_chain || m_chain->NoteRemoved(directory, name, isRequested);
  }

  /// Keeps other processes from writing here until this object ends, or the process does; also on a disk that is put in
  /// the place of this one meanwhile. False, with one sentence in `problem`, when another one holds it.
  [[nodiscard]] bool Lock(std::string& problem);

  /// Removes what a process that was interrupted has left half made or half removed, and closes events to whom they are
  /// not meant for (Access.h). Call it at the start, with the
  /// lock held and no commit under way. Returns how many directories that were.
  int CleanUp();

  /// Moves `sources` and the description into a new event directory, protected from the first if `isProtected`, and
  /// puts its path into `eventDir`. Blocks until all of it is on the disk, then the sources are removed; a source that
  /// cannot be removed is logged and no failure. `event.files` becomes what was written, ordered by type, and
  /// `event.id` a new one when it was empty, none or taken. False, with one sentence in `problem`: there is no such
  /// event, and the sources are where they were.
  [[nodiscard]] bool Commit(EventDescription& event, const std::vector<SourceFile>& sources, bool isProtected,
                            std::string& eventDir, std::string& problem);

 private:
  bool HoldLock(std::string& problem);
  void Share(const std::string& eventDir);
  void TellAccess(const std::string& problem);
  void FindNewest();
  [[nodiscard]] std::int64_t ChooseSavedNs();

  const std::string m_eventsDir;
  /// EventEntry::savedNs of the newest event; empty before the first commit.
  std::optional<std::int64_t> m_newestNs;
  DirectoryLock m_lock;
  std::optional<Chain> m_chain;
  std::optional<gid_t> m_group;
  /// What is refused is so for each event: it is told once.
  bool m_isAccessTold = false;
};

}  // namespace Tavi::EventStore
