// Moving a file so that it is never missing, never half and never in the place of another.
#include "Tavi/RecoveryCollect/MoveFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "Ksystem/FileUtils/Kdir.h"
#include "Ksystem/FileUtils/Kfile.h"
#include "Ksystem/FileUtils/UniqueFd.h"
#include "Tavi/GstUtil/Log.h"

namespace Tavi::RecoveryCollect {
namespace {

using Ksystem::FileUtils::Kdir;
using Ksystem::FileUtils::Kfile;
using Ksystem::FileUtils::UniqueFd;

constexpr std::size_t BlockBytes = std::size_t{256} << 10;

bool Exists(const std::string& path) {
  struct stat attributes {};
  return ::lstat(path.c_str(), &attributes) == 0;
}

/// Fills the block as far as the file goes. False when it cannot be read.
bool ReadBlock(const UniqueFd& file, std::vector<char>& block) {
  block.resize(BlockBytes);
  std::size_t size = 0;
  while (size < BlockBytes) {
    const ssize_t got = ::read(file.Get(), block.data() + size, BlockBytes - size);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return false;
    if (got == 0) break;
    size += static_cast<std::size_t>(got);
  }
  block.resize(size);
  return true;
}

/// What cannot be read is not the same.
bool HasSameContent(const std::string& first, const std::string& second) {
  const auto a = UniqueFd::Open(first, O_RDONLY);
  const auto b = UniqueFd::Open(second, O_RDONLY);
  if (!a.IsValid() || !b.IsValid()) return false;
  std::vector<char> blockOfA;
  std::vector<char> blockOfB;
  while (ReadBlock(a, blockOfA) && ReadBlock(b, blockOfB) && blockOfA == blockOfB) {
    if (blockOfA.empty()) return true;
  }
  return false;
}

bool Fail(const std::string& source, const std::string& dest, const std::string& reason) {
  Log::Error("cannot move " + source + " to " + dest + ": " + reason);
  return false;
}

bool CopyAcross(const std::string& source, const std::string& dest, const std::string& aside) {
  if (!Kfile(source).CopyTo(aside, false)) return Fail(source, dest, "it could not be copied");
  Kfile(source).CopyTimesTo(aside);
  if (std::rename(aside.c_str(), dest.c_str()) != 0) return Fail(source, dest, std::strerror(errno));
  return Kdir::SyncParentOf(dest) && Kfile(source).Remove();
}

}  // namespace

bool MoveFile(const std::string& source, const std::string& dest, const std::string& aside) {
  if (Exists(dest)) {
    if (!HasSameContent(source, dest)) return Fail(source, dest, "another file stands there");
    return Kdir::SyncParentOf(dest) && Kfile(source).Remove();
  }
  if (std::rename(source.c_str(), dest.c_str()) == 0) return Kdir::SyncParentOf(dest);
  return errno == EXDEV ? CopyAcross(source, dest, aside) : Fail(source, dest, std::strerror(errno));
}

}  // namespace Tavi::RecoveryCollect
