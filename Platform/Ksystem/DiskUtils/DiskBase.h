// The disk under a path.
#pragma once

#include <string>

namespace Ksystem::DiskUtils {

/// Space on the file system that holds `path`. Megabytes are 1024 * 1024 bytes. Thread-bound.
class DiskBase {
 public:
  explicit DiskBase(std::string path);

  /// Reads the present figures; false, with one line in the log, when there is no such path.
  bool LoadDiskInfo();
  /// What an unprivileged process may still write, as of the last successful LoadDiskInfo.
  [[nodiscard]] double GetFreeMB() const { return m_freeMB; }
  [[nodiscard]] double GetTotalMB() const { return m_totalMB; }
  [[nodiscard]] const std::string& GetPath() const { return m_path; }

 private:
  const std::string m_path;
  double m_freeMB = 0.0;
  double m_totalMB = 0.0;
};

}  // namespace Ksystem::DiskUtils
