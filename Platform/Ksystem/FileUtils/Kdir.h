// One directory.
#pragma once

#include <string>
#include <system_error>
#include <vector>

namespace Ksystem::FileUtils {

/// Names one directory; nothing happens until an operation is called.
class Kdir {
 public:
  explicit Kdir(std::string path);

  /// Creates the directory and its missing parents (mode 0750), each synced: what is saved in a directory that a power
  /// cut takes away again is not saved. True also when it is there already; false, with one
  /// line in the log, when something else stands in the way.
  bool Create() const;
  /// Sorted names of what is in the directory; none when there is no such directory. With an error, which is not
  /// logged, those that could be read.
  [[nodiscard]] std::error_code List(std::vector<std::string>& names) const;
  /// Removes the directory with all that is in it; a missing one is no error. An error is not logged.
  [[nodiscard]] std::error_code RemoveTree() const;

  /// Makes the names in the directory at `path` survive a power cut. False, with one line in the log, on failure.
  static bool Sync(const std::string& path);
  /// The same for the directory that the file at `path` stands in.
  static bool SyncParentOf(const std::string& path);
  /// The same as Sync, for those who say themselves what went wrong: errno is set and nothing logged.
  [[nodiscard]] static bool TrySync(const std::string& path);
  /// The directory that the file at `path` stands in.
  [[nodiscard]] static std::string GetParentOf(const std::string& path);

 private:
  const std::string m_path;
};

}  // namespace Ksystem::FileUtils
