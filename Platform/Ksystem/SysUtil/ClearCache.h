// Giving cached memory back.
#pragma once

namespace Ksystem::SysUtil {

/// Lets the kernel drop its clean page cache, so that an event's files on the RAM disk do not squeeze out what
/// acquisition needs next. Only on the unit: on a machine that others use too, emptying everybody's cache would be
/// hostile, so there it does nothing and is true. False when the kernel refuses.
bool ClearCache();

}  // namespace Ksystem::SysUtil
