// Who may read what is in the events directory.
#include "EventStore/Access.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "EventStore/Storage.h"

namespace Tavi::EventStore {
namespace {

constexpr mode_t AccessBits = 07777;
constexpr uid_t SameUser = static_cast<uid_t>(-1);

bool HasAccess(const struct stat& is, mode_t mode, gid_t group) {
  return (is.st_mode & AccessBits) == mode && is.st_gid == group;
}

/// The mode first: no group is to read by a mode that was meant for another.
bool SetAccess(const std::string& path, mode_t mode, gid_t group, std::string& problem) {
  struct stat is {};
  if (::lstat(path.c_str(), &is) != 0) return Fail("look at", path, problem);
  if (HasAccess(is, mode, group) || S_ISLNK(is.st_mode)) return true;
  if ((is.st_mode & AccessBits) != mode && ::chmod(path.c_str(), mode) != 0) {
    return Fail("change the mode of", path, problem);
  }
  return is.st_gid == group || ::lchown(path.c_str(), SameUser, group) == 0 ||
         Fail("change the group of", path, problem);
}

}  // namespace

void ShareFile(int file, const std::string& directory) {
  struct stat is {};
  struct stat parent {};
  if (::fstat(file, &is) != 0 || ::stat(directory.c_str(), &parent) != 0) return;
  if (HasAccess(is, FileAccess, parent.st_gid) || ::fchmod(file, FileAccess) != 0) return;
  if (is.st_gid != parent.st_gid && ::fchown(file, SameUser, parent.st_gid) != 0) return;
}

bool ShareDirectory(const std::string& directory, std::optional<gid_t> group, std::string& problem) {
  struct stat is {};
  if (::lstat(directory.c_str(), &is) != 0) return Fail("look at", directory, problem);
  if (!S_ISDIR(is.st_mode)) return true;
  const gid_t wanted = group.value_or(is.st_gid);
  bool isShared = true;
  for (const std::string& name : ListNames(directory)) {
    isShared = SetAccess(directory + "/" + name, FileAccess, wanted, problem) && isShared;
  }
  // Last: who is interrupted finds by it that there is something left to do.
  return SetAccess(directory, DirectoryAccess, wanted, problem) && isShared;
}

bool OpenToGroup(const std::string& directory, std::optional<gid_t> group, std::string& problem) {
  struct stat is {};
  if (!group) return true;
  if (::stat(directory.c_str(), &is) != 0) return Fail("look at", directory, problem);
  constexpr mode_t GroupLists = S_IRGRP | S_IXGRP;
  return SetAccess(directory, (is.st_mode & AccessBits) | GroupLists, *group, problem);
}

}  // namespace Tavi::EventStore
