// Where a product is made before it gets its name.
#pragma once

#include <string>

#include "Ksystem/FileUtils/UniqueFd.h"

namespace Tavi::RecoveryCollect {

/// A directory of its own within the output directory: on the same file system as the products, and out of sight of
/// whoever lists them. What lies in it can be made again, so it is emptied at construction, which finds what an
/// interrupted recovery has left, and gone at destruction. Thread-bound; one at a time.
class WorkDirectory {
 public:
  /// `outputDir` ends with "/" and is created when missing.
  explicit WorkDirectory(const std::string& outputDir);
  ~WorkDirectory();
  WorkDirectory(const WorkDirectory&) = delete;
  WorkDirectory& operator=(const WorkDirectory&) = delete;

  /// True when an interrupted recovery has left one.
  static bool IsLeftIn(const std::string& outputDir);
  /// False, after a line in the log, when nothing can be made in it.
  [[nodiscard]] bool IsValid() const { return m_directory.IsValid(); }
  /// Removes what was made; true when nothing is left.
  [[nodiscard]] bool Clear() const;
  /// Makes `source` readable as GetVideoPath or GetAudioPath, without copying it where the file system has symbolic
  /// links. False, after a line in the log, on failure.
  [[nodiscard]] bool LinkVideo(const std::string& source) const;
  [[nodiscard]] bool LinkAudio(const std::string& source) const;
  /// The same for their companions, which then stand beside them. A failure costs no more than what they tell.
  void LinkVideoTimes(const std::string& source) const;
  void LinkAudioTimes(const std::string& source) const;

  /// Paths of a few characters however deep the directory lies: the muxer's request has room for 255. They hold while
  /// this object lives, in this process.
  [[nodiscard]] std::string GetVideoPath() const;
  [[nodiscard]] std::string GetAudioPath() const;
  /// For copies on their way.
  [[nodiscard]] std::string GetAsidePath() const;

 private:
  [[nodiscard]] std::string GetPath(const char* name) const;

  const std::string m_path;
  Ksystem::FileUtils::UniqueFd m_directory;
};

}  // namespace Tavi::RecoveryCollect
