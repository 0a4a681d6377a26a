// Small operations on files and directories that say what went wrong instead of logging it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Ksystem/FileUtils/UniqueFd.h"

namespace Tavi::EventStore {

using Ksystem::FileUtils::WriteAll;

/// Puts "cannot <action> <path>: <errno text>" into `problem`; false.
bool Fail(std::string_view action, std::string_view path, std::string& problem);

/// Opens a regular file for reading, and nothing else: neither a link, which may lead anywhere, nor a FIFO, whose open
/// may wait for ever. Invalid, with `problem`, on failure.
Ksystem::FileUtils::UniqueFd OpenRegularFile(const std::string& path, std::string& problem);
/// More than any description takes, which has some 4 KB.
inline constexpr std::size_t MaxTextBytes = std::size_t{1} << 20;
/// The whole content of a file of at most `maxBytes`.
[[nodiscard]] bool ReadSmallFile(const std::string& path, std::size_t maxBytes, std::string& text,
                                 std::string& problem);

/// Writes a file of that content, synced and for whom its directory is (Access.h); its name is not, see SyncDirectory.
/// `modifiedNs`: its modification time, Unix time in nanoseconds; now without one.
[[nodiscard]] bool WriteSynced(const std::string& path, std::string_view text, std::string& problem,
                               std::optional<std::int64_t> modifiedNs = std::nullopt);
[[nodiscard]] bool SyncDirectory(const std::string& path, std::string& problem);
[[nodiscard]] bool Rename(const std::string& from, const std::string& to, std::string& problem);
/// Removes a directory with all that is in it; a missing one is no error.
[[nodiscard]] bool RemoveTree(const std::string& path, std::string& problem);

/// Unix time in nanoseconds.
std::int64_t ToNs(const timespec& time);
bool Exists(const std::string& path);
bool IsDirectory(const std::string& path);
/// Names of what is in the directory, sorted. What cannot be read is left out, with one line in the log.
std::vector<std::string> ListNames(const std::string& dir);

void LogWarning(std::string_view message);
void LogInfo(std::string_view message);

}  // namespace Tavi::EventStore
