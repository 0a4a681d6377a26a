// The far side, as rclone reaches it.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Fleet/Upload/ChildProcess.h"
#include "Fleet/Upload/Manifest.h"
#include "Fleet/Upload/UploadSettings.h"

namespace Tavi::Upload {

using Names = std::set<std::string>;

/// Directories of events below one path of the far side. Each operation is a run of rclone or some, ends within a
/// bound, and says in `problem` why it failed. Thread-bound.
class Remote {
 public:
  /// `lockFd` is handed on to each rclone: see StateLock. `onTick` as in ChildOrder.
  Remote(UploadSettings settings, const StopSignal& stop, int lockFd, std::function<void()> onTick);

  /// Which hash the far side tells; Sha256 where it tells none, for what is read back is hashed here. Asked once.
  std::optional<HashType> GetHashType(std::string& problem);

  /// Of these files those that are there with the right content, by the far side's hash; of which it tells none are
  /// read back, at most readBackMiB. Empty, with `problem`, when it cannot be told. A missing directory holds nothing.
  std::optional<Names> FindRight(const Manifest& manifest, const std::vector<UploadFile>& files, std::string& problem);
  /// The same, but of what the far side tells no hash those of the right size: that proves nothing, it tells what need
  /// not be sent before it is read back.
  std::optional<Names> FindLikely(const Manifest& manifest, const std::vector<UploadFile>& files, std::string& problem);
  /// Copies files of a local event, over what is there under their names.
  [[nodiscard]] bool Send(const std::string& eventDir, const std::string& event, const std::vector<UploadFile>& files,
                          std::string& problem);
  /// Writes a small file.
  [[nodiscard]] bool Put(const std::string& event, const std::string& name, const std::string& text,
                         std::string& problem);
  /// Removes a file; a missing one is no error.
  [[nodiscard]] bool Remove(const std::string& event, const std::string& name, std::string& problem);

 private:
  using Texts = std::map<std::string, std::string>;

  /// What is right by its hash goes to `right`; what is of the right size and has no hash is returned.
  std::optional<std::vector<UploadFile>> Compare(const Manifest& manifest, const std::vector<UploadFile>& files,
                                                 Names& right, std::string& problem);

  ChildResult Run(std::vector<std::string> words, const std::string& input, std::uint64_t bytes);
  std::optional<Texts> ReadHashes(const std::string& event, const std::vector<UploadFile>& files, HashType type,
                                  bool isReadBack, std::string& problem);
  std::optional<std::map<std::string, std::uint64_t>> ReadSizes(const std::string& event, std::string& problem);
  [[nodiscard]] std::string GetPath(const std::string& event) const;

  const UploadSettings m_settings;
  const StopSignal& m_stop;
  const int m_lockFd;
  const std::function<void()> m_onTick;
  std::optional<HashType> m_hashType;
  bool m_tellsHashes = false;
};

}  // namespace Tavi::Upload
