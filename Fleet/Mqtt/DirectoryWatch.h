// Tells when a directory has changed.
#pragma once

#include <string>

#include "Ksystem/FileUtils/UniqueFd.h"

namespace Tavi::Mqtt {

/// The kernel's word for what appears in a directory under its name, or leaves it (inotify). A hint to look at once,
/// not the truth: without it, as on a network's file system, who asks looks from time to time all the same.
/// Thread-bound.
class DirectoryWatch {
 public:
  /// False when nothing will be told: there is no such directory, or the kernel has no watch to give.
  bool Open(const std::string& directory);
  /// Whether there was a change since the last call; false without a watch.
  [[nodiscard]] bool HasChanged();

 private:
  Ksystem::FileUtils::UniqueFd m_notifier;
};

}  // namespace Tavi::Mqtt
