// Who may read what is in the events directory, whatever the umask of the process that writes it.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace Tavi::EventStore {

/// Of every file of an event: the recorder writes, the viewers' group reads, nobody else does.
inline constexpr mode_t FileAccess = 0640;
/// Of every event's directory.
inline constexpr mode_t DirectoryAccess = 0750;

/// Gives an open file FileAccess and the group of the directory that it stands in. To be called before the file is
/// synced. What is refused here is told by ShareDirectory.
void ShareFile(int file, const std::string& directory);

/// Gives the directory DirectoryAccess, and the files in it FileAccess and the directory's group, which becomes `group`
/// first, if any. What has all that is left alone; the content and the times of modification stay as they are. False,
/// with one sentence in `problem`, when something was refused: such as by a file system without owners, or where the
/// process is no member of the group. What was refused is less open than wanted, never more, unless it was so before.
[[nodiscard]] bool ShareDirectory(const std::string& directory, std::optional<gid_t> group, std::string& problem);

/// Gives `group` the directory that events stand in, and lets it list that. Nothing without a group. False, with one
/// sentence in `problem`, when that is refused.
[[nodiscard]] bool OpenToGroup(const std::string& directory, std::optional<gid_t> group, std::string& problem);

}  // namespace Tavi::EventStore
