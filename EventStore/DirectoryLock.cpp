// One process at a time in a directory.
#include "EventStore/DirectoryLock.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "EventStore/Storage.h"

namespace Tavi::EventStore {

using Ksystem::FileUtils::UniqueFd;

DirectoryLock::DirectoryLock(std::string dir, const std::string& fileName)
    : m_dir(std::move(dir)), m_path(fileName.empty() ? m_dir : m_dir + "/" + fileName) {}

bool DirectoryLock::Take(std::string& problem) {
  const int flags = m_path == m_dir ? O_RDONLY | O_DIRECTORY : O_RDWR | O_CREAT | O_NOFOLLOW;
  UniqueFd lock = UniqueFd::Open(m_path, flags);
  if (!lock.IsValid()) return Fail("open", m_path, problem);
  if (::flock(lock.Get(), LOCK_EX | LOCK_NB) == 0) {
    m_lock = std::move(lock);
    return true;
  }
  if (errno != EWOULDBLOCK) return Fail("lock", m_path, problem);
  problem = fmt::format("the directory {} is in use by another process", m_dir);
  return false;
}

bool DirectoryLock::IsCurrent() const {
  struct stat held {};
  struct stat there {};
  return m_lock.IsValid() && ::fstat(m_lock.Get(), &held) == 0 && ::stat(m_path.c_str(), &there) == 0 &&
         held.st_dev == there.st_dev && held.st_ino == there.st_ino;
}

}  // namespace Tavi::EventStore
