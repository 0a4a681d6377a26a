// One directory.
#include "Ksystem/FileUtils/Kdir.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <utility>

#include "Ksystem/FileUtils/Failure.h"
#include "Ksystem/FileUtils/UniqueFd.h"

namespace Ksystem::FileUtils {
namespace {

constexpr mode_t DirectoryMode = 0750;

bool IsDirectory(const std::string& path) {
  struct stat attributes {};
  return ::stat(path.c_str(), &attributes) == 0 && S_ISDIR(attributes.st_mode);
}

/// Creates one level, on the disk when this returns; an existing directory is fine, whoever made it meanwhile.
bool CreateLevel(const std::string& path) {
  if (::mkdir(path.c_str(), DirectoryMode) == 0) {
    const std::string parent = Kdir::GetParentOf(path);
    // Not every file system, and not every parent, lets itself be synced: the directory is there all the same.
    if (!Kdir::TrySync(parent) && errno != EINVAL && errno != EACCES) LogFailure("sync the directory", parent);
    return true;
  }
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

std::error_code Kdir::List(std::vector<std::string>& names) const {
  std::error_code error = std::make_error_code(std::errc::io_error);
  // Who misses a name takes what it is of for lost.
  for (int tries = 0; tries < 2 && error == std::errc::io_error; ++tries) {
    names.clear();
    std::filesystem::directory_iterator entry(m_path, error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
      names.push_back(entry->path().filename().string());
    }
    if (error == std::errc::io_error) errno = error.value(), LogFailure("read the directory", m_path);
  }
  std::sort(names.begin(), names.end());
  return error == std::errc::no_such_file_or_directory ? std::error_code() : error;
}

std::error_code Kdir::RemoveTree() const {
  std::error_code error;
  std::filesystem::remove_all(m_path, error);
  // A directory whose names cannot be read is passed over in silence.
  std::error_code ignored;
  if (!error && std::filesystem::exists(std::filesystem::symlink_status(m_path, ignored))) {
    error = std::make_error_code(std::errc::io_error);
  }
  return error;
}

bool Kdir::TrySync(const std::string& path) {
  UniqueFd directory = UniqueFd::Open(path, O_RDONLY | O_DIRECTORY);
  return directory.IsValid() && ::fsync(directory.Get()) == 0 && directory.Close();
}

bool Kdir::Sync(const std::string& path) {
  if (TrySync(path)) return true;
  LogFailure("sync the directory", path);
  return false;
}

bool Kdir::SyncParentOf(const std::string& path) {
  return Sync(GetParentOf(path));
}

std::string Kdir::GetParentOf(const std::string& path) {
  const auto slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace Ksystem::FileUtils
