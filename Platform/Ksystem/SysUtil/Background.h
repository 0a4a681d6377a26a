// Threads that nobody is to wait for.
#pragma once

namespace Ksystem::SysUtil {

/// The calling thread gives way from now on: `nice` (0 to 19) for the processor, see setpriority(2), and the lowest
/// level of the best-effort class for the disk, see ioprio_set(2). Not the idle class: others may wait for what this
/// thread holds of the file system. Where that is refused the thread stays as it is, which is no reason not to work.
void GiveWay(int nice);

}  // namespace Ksystem::SysUtil
