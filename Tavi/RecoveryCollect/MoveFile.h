// Moving a file so that it is never missing, never half and never in the place of another.
#pragma once

#include <string>

namespace Tavi::RecoveryCollect {

/// Moves `source` to `dest`, within a file system by rename, else by a copy that is made under the name `aside` on the
/// file system of `dest`, synced and renamed; `source` is removed when `dest` is on the disk. Interrupted at any
/// instant and called again it ends the same: a `dest` of the same content is taken for what it is, the work of the
/// call before. One of another content stays, and so does `source`. False, with one line in the log that names the
/// file, when `source` could not be moved.
[[nodiscard]] bool MoveFile(const std::string& source, const std::string& dest, const std::string& aside);

}  // namespace Tavi::RecoveryCollect
