// Saving an event's files when power fails.
#pragma once

#include <array>
#include <string>
#include <utility>
#include <vector>

#include "Tavi/EventCollect/CollectorSet.h"

namespace Tavi::PipelineCollect {

class CopyAhead;

/// Copies what the collectors of one event have written into the backup directory, on one thread a file. Runs, and
/// waits for the copies, on the caller's thread.
class PowerBackup {
 public:
  /// `dir` is created when missing.
  explicit PowerBackup(std::string dir) : m_dir(std::move(dir)) {}

  /// What is saved when power fails, in this order.
  static constexpr std::array<PipelineCollectType, 7> SavedTypes{PipelineCollectType::VideoCamera0,
                                                                 PipelineCollectType::VideoCamera1,
                                                                 PipelineCollectType::Audio,
                                                                 PipelineCollectType::Gps,
                                                                 PipelineCollectType::Acc,
                                                                 PipelineCollectType::ThumbnailCamera0,
                                                                 PipelineCollectType::ThumbnailCamera1};

  /// Saves the files under names that begin with `base` and tell time and length. True when all of it is safe: each
  /// copy that there was something for has ended whole, and no collector was still writing. What was copied ahead is
  /// completed instead, under the name that it has; null when nothing was.
  [[nodiscard]] bool Save(const CollectorMap& collectors, const std::string& base, CopyAhead* ahead = nullptr) const;

 private:
  [[nodiscard]] bool CopyAll(std::vector<CollectBase*> collectors, const std::string& name) const;

  const std::string m_dir;
};

}  // namespace Tavi::PipelineCollect
