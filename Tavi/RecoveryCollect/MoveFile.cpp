// Moving a file so that it is never missing, never half and never in the place of another.
#include "Tavi/RecoveryCollect/MoveFile.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "KMedia/FFMpeg/MappedFile.h"
#include "Ksystem/FileUtils/Kdir.h"
#include "Ksystem/FileUtils/Kfile.h"
#include "Tavi/GstUtil/Log.h"

namespace Tavi::RecoveryCollect {
namespace {

using Ksystem::FileUtils::Kdir;
using Ksystem::FileUtils::Kfile;

bool Exists(const std::string& path) {
  struct stat attributes {};
  return ::lstat(path.c_str(), &attributes) == 0;
}

bool HasSameContent(const std::string& first, const std::string& second) {
  KMedia::MappedFile a;
  KMedia::MappedFile b;
  return a.Map(first) && b.Map(second) && std::ranges::equal(a.GetBytes(), b.GetBytes());
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
