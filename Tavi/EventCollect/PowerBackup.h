// Saving an event's files when power fails.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "Tavi/EventCollect/CollectorSet.h"

namespace Tavi::PipelineCollect {

/// Copies what the collectors of one event have written into the backup directory, on one thread a file. Runs, and
/// waits for the copies, on the caller's thread.
class PowerBackup {
 public:
  /// `dir` is created when missing.
  explicit PowerBackup(std::string dir) : m_dir(std::move(dir)) {}

  /// Saves the files under names that begin with `base` and tell time and length. True when all of it is safe: each
  /// copy that there was something for has ended whole, and no collector was still writing.
  [[nodiscard]] bool Save(const CollectorMap& collectors, const std::string& base) const;

 private:
  [[nodiscard]] bool CopyAll(std::vector<CollectBase*> collectors, const std::string& name) const;

  const std::string m_dir;
};

}  // namespace Tavi::PipelineCollect
