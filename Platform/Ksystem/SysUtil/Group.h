// The machine's groups.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace Ksystem::SysUtil {

/// The number of the group of that name, by the system's own sources (nsswitch.conf(5)), which may block. Empty when
/// there is none, or when they cannot be asked. Reentrant.
[[nodiscard]] std::optional<gid_t> FindGroup(const std::string& name);

}  // namespace Ksystem::SysUtil
