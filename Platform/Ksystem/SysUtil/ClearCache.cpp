// Giving cached memory back.
#include "Ksystem/SysUtil/ClearCache.h"

#ifdef TAVI_UNIT
#include <fcntl.h>
#include <unistd.h>

#include "Ksystem/FileUtils/UniqueFd.h"
#endif

namespace Ksystem::SysUtil {

bool ClearCache() {
#ifdef TAVI_UNIT
  // "1" drops the page cache only (kernel documentation, sysctl vm.drop_caches).
  const auto control = FileUtils::UniqueFd::Open("/proc/sys/vm/drop_caches", O_WRONLY);
  return control.IsValid() && ::write(control.Get(), "1", 1) == 1;
#else
  return true;
#endif
}

}  // namespace Ksystem::SysUtil
