// Giving cached memory back.
#include "Ksystem/SysUtil/ClearCache.h"

#ifdef TAVI_UNIT
#include <fcntl.h>
#include <unistd.h>

#include "Ksystem/FileUtils/UniqueFd.h"
#endif

namespace Ksystem::SysUtil {

#ifdef TAVI_UNIT
namespace {

bool WriteOne(const char* path, int flags) {
  const auto control = FileUtils::UniqueFd::Open(path, O_WRONLY | flags);
  return control.IsValid() && ::write(control.Get(), "1", 1) == 1;
}

}  // namespace
#endif

bool ClearCache() {
#ifdef TAVI_UNIT
  // "1" drops the page cache only (kernel documentation, sysctl vm.drop_caches). Root alone may; for others a service
  // of the unit does it when this file is written (packaging/unit/tavi-clear-cache.path).
  return WriteOne("/proc/sys/vm/drop_caches", 0) || WriteOne("/run/tavi/clear-cache", O_CREAT | O_TRUNC | O_NOFOLLOW);
#else
  return true;
#endif
}

}  // namespace Ksystem::SysUtil
