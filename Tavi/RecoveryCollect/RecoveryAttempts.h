// How often the files of interrupted events have failed.
#pragma once

#include <map>
#include <string>

namespace Tavi::RecoveryCollect {

/// Written down in the restore directory, because what a file does to the program that reads it may be the end of it:
/// a recorder that dies of the same file at each start would never record again. Thread-bound.
class RecoveryAttempts {
 public:
  /// `restoreDir` ends with "/".
  explicit RecoveryAttempts(std::string restoreDir);

  /// True for the names of the files that this class writes there.
  static bool IsOwnFile(const std::string& name);

  /// True for a file that is not to be tried any more: it has failed twice, or the program has died of it several
  /// times. A death may as well be power that fails, and comes with no fault of the file's.
  [[nodiscard]] bool IsGivenUp(const std::string& name) const;
  /// The file will be read. On the disk when this returns.
  void Begin(const std::string& name);
  enum class Result { Done, Failed, ForWantOfRoom };
  /// It has been read.
  void End(const std::string& name, Result result);

 private:
  struct Count {
    int failed = 0;
    int died = 0;
  };

  void Read();
  void Write() const;

  const std::string m_restoreDir;
  const std::string m_path;
  /// By the file's name; only of those that are still there.
  std::map<std::string, Count> m_counts;
};

}  // namespace Tavi::RecoveryCollect
