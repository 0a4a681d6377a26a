// A file that takes its name when it is whole.
#pragma once

#include <string>
#include <string_view>

#include "Ksystem/FileUtils/UniqueFd.h"

namespace Ksystem::FileUtils {

/// Owns the name that a file is written under until it is whole: its own and ".part". Under its own name stands the
/// whole file or what stood there before, also after a power cut; what is half is removed at destruction. Thread-bound.
class AsideFile {
 public:
  /// Behind the name of a file that is not whole.
  static constexpr std::string_view Suffix = ".part";
  [[nodiscard]] static std::string GetAsidePathOf(const std::string& path) { return path + std::string(Suffix); }

  explicit AsideFile(std::string path);
  ~AsideFile();
  AsideFile(const AsideFile&) = delete;
  AsideFile& operator=(const AsideFile&) = delete;

  /// Creates the file under its aside name, empty, for writing to GetFd. False, with errno set, on failure. Who writes
  /// by the name does without.
  [[nodiscard]] bool Open();
  [[nodiscard]] int GetFd() const { return m_file.Get(); }
  [[nodiscard]] const std::string& GetAsidePath() const { return m_aside; }

  /// Brings the content onto the disk, gives the file its name and brings that onto the disk. False, with errno set and
  /// nothing logged, on failure: its user knows what was being made.
  [[nodiscard]] bool Commit();
  /// Leaves what there is under the aside name, synced: the beginning of a file may be worth more than nothing. What is
  /// empty, or cannot be kept for sure, is removed all the same; then there is a line in the log.
  void Keep();

 private:
  bool SyncContent();

  const std::string m_path;
  const std::string m_aside;
  UniqueFd m_file;
  bool m_isHalf = true;
};

}  // namespace Ksystem::FileUtils
