// One directory.
#pragma once

#include <string>

namespace Ksystem::FileUtils {

/// Names one directory; nothing happens until an operation is called.
class Kdir {
 public:
  explicit Kdir(std::string path);

  /// Creates the directory and its missing parents (mode 0755). True also when it is there already; false, with one
  /// line in the log, when something else stands in the way.
  bool Create() const;

  /// Makes the names in the directory at `path` survive a power cut. False, with one line in the log, on failure.
  static bool Sync(const std::string& path);
  /// The same for the directory that the file at `path` stands in.
  static bool SyncParentOf(const std::string& path);

 private:
  const std::string m_path;
};

}  // namespace Ksystem::FileUtils
