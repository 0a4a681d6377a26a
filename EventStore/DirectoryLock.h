// One process at a time in a directory.
#pragma once

#include <string>

#include "Ksystem/FileUtils/UniqueFd.h"

namespace Tavi::EventStore {

/// An advisory lock (flock) on a directory, on whichever disk is mounted there. Gone with the object or the process.
/// Thread-bound.
class DirectoryLock {
 public:
  /// Locks the directory itself, which leaves nothing in it, or with `fileName` a file of that name in it.
  explicit DirectoryLock(std::string dir, const std::string& fileName = "");

  /// Takes the lock of the directory that has this path now; the directory must be there. False, with one sentence in
  /// `problem`, when another one holds it.
  [[nodiscard]] bool Take(std::string& problem);
  [[nodiscard]] bool IsTaken() const { return m_lock.IsValid(); }
  /// False when the directory's path leads to another one by now: a disk was mounted or taken away.
  [[nodiscard]] bool IsCurrent() const;

 private:
  const std::string m_dir;
  const std::string m_path;
  Ksystem::FileUtils::UniqueFd m_lock;
};

}  // namespace Tavi::EventStore
