// One directory.
#include "Ksystem/FileUtils/Kdir.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "Ksystem/FileUtils/Failure.h"
#include "Ksystem/FileUtils/UniqueFd.h"

namespace Ksystem::FileUtils {
namespace {

constexpr mode_t DirectoryMode = 0755;

bool IsDirectory(const std::string& path) {
  struct stat attributes {};
  return ::stat(path.c_str(), &attributes) == 0 && S_ISDIR(attributes.st_mode);
}

/// Creates one level; an existing directory is fine, whoever made it meanwhile.
bool CreateLevel(const std::string& path) {
  if (::mkdir(path.c_str(), DirectoryMode) == 0) return true;
  const int reason = errno;
  if (IsDirectory(path)) return true;
  errno = reason;
  return false;
}

}  // namespace

Kdir::Kdir(std::string path) : m_path(std::move(path)) {}

bool Kdir::Create() const {
  if (!m_path.empty() && IsDirectory(m_path)) return true;
  errno = ENOENT;
  bool created = !m_path.empty();
  for (std::size_t end = 1; created && end <= m_path.size(); ++end) {
    if (end == m_path.size() || m_path[end] == '/') created = CreateLevel(m_path.substr(0, end));
  }
  if (!created) LogFailure("create the directory", m_path);
  return created;
}

bool Kdir::Sync(const std::string& path) {
  UniqueFd directory = UniqueFd::Open(path, O_RDONLY | O_DIRECTORY);
  if (directory.IsValid() && ::fsync(directory.Get()) == 0 && directory.Close()) return true;
  LogFailure("sync the directory", path);
  return false;
}

bool Kdir::SyncParentOf(const std::string& path) {
  const auto slash = path.rfind('/');
  if (slash == std::string::npos) return Sync(".");
  return Sync(slash == 0 ? "/" : path.substr(0, slash));
}

}  // namespace Ksystem::FileUtils
