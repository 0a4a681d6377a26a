// Threads that nobody is to wait for.
#include "Ksystem/SysUtil/Background.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Ksystem::SysUtil {
namespace {

/// linux/ioprio.h, which is not among the C library's headers.
constexpr int IoPrioWhoProcess = 1;
constexpr int IoPrioBestEffortLowest = (2 << 13) | 7;

}  // namespace

void GiveWay(int nice) {
  ::setpriority(PRIO_PROCESS, 0, nice);
  ::syscall(SYS_ioprio_set, IoPrioWhoProcess, 0, IoPrioBestEffortLowest);
}

}  // namespace Ksystem::SysUtil
