// The disk under a path.
#include "Ksystem/DiskUtils/DiskBase.h"

#include <sys/statvfs.h>

#include <utility>

#include "Ksystem/FileUtils/Failure.h"

namespace Ksystem::DiskUtils {
namespace {

constexpr double BytesPerMB = 1024.0 * 1024.0;

}  // namespace

DiskBase::DiskBase(std::string path) : m_path(std::move(path)) {}

bool DiskBase::LoadDiskInfo() {
  struct statvfs info {};
  if (::statvfs(m_path.c_str(), &info) != 0) {
    FileUtils::LogFailure("read the free space of", m_path);
    return false;
  }
  const auto block = static_cast<double>(info.f_frsize);
  m_freeMB = static_cast<double>(info.f_bavail) * block / BytesPerMB;
  m_totalMB = static_cast<double>(info.f_blocks) * block / BytesPerMB;
  return true;
}

}  // namespace Ksystem::DiskUtils
