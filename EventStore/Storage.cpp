// Small operations on files and directories that say what went wrong instead of logging it.
#include "EventStore/Storage.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "EventStore/Access.h"
#include "Kbase/Klog/Logger.h"
#include "Ksystem/FileUtils/Kdir.h"

namespace Tavi::EventStore {

using Ksystem::FileUtils::Kdir;
using Ksystem::FileUtils::UniqueFd;

namespace {

constexpr std::string_view Tag = "EventStore";
constexpr std::int64_t NsPerSecond = 1'000'000'000;

bool GetAttributes(const std::string& path, struct stat& attributes) {
  return ::lstat(path.c_str(), &attributes) == 0;
}

bool SetModified(int file, std::int64_t ns) {
  const timespec time{static_cast<std::time_t>(ns / NsPerSecond), static_cast<long>(ns % NsPerSecond)};
  const std::array<timespec, 2> times{time, time};
  return ::futimens(file, times.data()) == 0;
}

}  // namespace

bool Fail(std::string_view action, std::string_view path, std::string& problem) {
  problem = fmt::format("cannot {} {}: {}", action, path, std::strerror(errno));
  return false;
}

UniqueFd OpenRegularFile(const std::string& path, std::string& problem) {
  UniqueFd file = UniqueFd::Open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
  struct stat attributes {};
  if (!file.IsValid() || ::fstat(file.Get(), &attributes) != 0) {
    Fail("read", path, problem);
    return {};
  }
  if (S_ISREG(attributes.st_mode)) return file;
  problem = fmt::format("cannot read {}: it is no regular file", path);
  return {};
}

bool ReadSmallFile(const std::string& path, std::size_t maxBytes, std::string& text, std::string& problem) {
  const UniqueFd file = OpenRegularFile(path, problem);
  if (!file.IsValid()) return false;
  // One byte more than allowed tells that there is more.
  text.resize(maxBytes + 1);
  std::size_t size = 0;
  while (size < text.size()) {
    const ssize_t got = ::read(file.Get(), text.data() + size, text.size() - size);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return Fail("read", path, problem);
    if (got == 0) break;
    size += static_cast<std::size_t>(got);
  }
  text.resize(size);
  if (size <= maxBytes) return true;
  problem = fmt::format("cannot read {}: it is larger than {} bytes", path, maxBytes);
  return false;
}

bool WriteSynced(const std::string& path, std::string_view text, std::string& problem,
                 std::optional<std::int64_t> modifiedNs) {
  UniqueFd file = UniqueFd::Open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW);
  if (file.IsValid()) ShareFile(file.Get(), Kdir::GetParentOf(path));
  const bool written = file.IsValid() && WriteAll(file.Get(), text.data(), text.size()) &&
                       (!modifiedNs || SetModified(file.Get(), *modifiedNs)) && ::fsync(file.Get()) == 0;
  return (written && file.Close()) || Fail("write", path, problem);
}

bool SyncDirectory(const std::string& path, std::string& problem) {
  return Kdir::TrySync(path) || Fail("sync", path, problem);
}

bool Rename(const std::string& from, const std::string& to, std::string& problem) {
  return std::rename(from.c_str(), to.c_str()) == 0 || Fail("rename " + from + " to", to, problem);
}

bool RemoveTree(const std::string& path, std::string& problem) {
  const auto error = Kdir(path).RemoveTree();
  if (error) problem = fmt::format("cannot remove {}: {}", path, error.message());
  return !error;
}

std::int64_t ToNs(const timespec& time) {
  return time.tv_sec * NsPerSecond + time.tv_nsec;
}

bool Exists(const std::string& path) {
  struct stat attributes {};
  return GetAttributes(path, attributes);
}

bool IsDirectory(const std::string& path) {
  struct stat attributes {};
  return GetAttributes(path, attributes) && S_ISDIR(attributes.st_mode);
}

std::vector<std::string> ListNames(const std::string& dir) {
  std::vector<std::string> names;
  if (const auto error = Kdir(dir).List(names)) LogWarning(fmt::format("cannot list {}: {}", dir, error.message()));
  return names;
}

void LogWarning(std::string_view message) {
  Kbase::Klog::Logger::GetInstance().Warning(Tag, message);
}

void LogInfo(std::string_view message) {
  Kbase::Klog::Logger::GetInstance().Info(Tag, message);
}

}  // namespace Tavi::EventStore
