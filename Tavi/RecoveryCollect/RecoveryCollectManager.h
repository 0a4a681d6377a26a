// Finishes, at the next start, the events that a power failure has interrupted.
#pragma once

#include <string>

#include "Tavi/RecoveryCollect/RecoveryCollectTypes.h"

namespace Tavi::RecoveryCollect {

/// Two steps, in this order, before acquisition starts: MoveBackup, Collect. Both may be interrupted at any instant and
/// are then simply called again: nothing is lost, nothing there twice. They block, for as long as the disk takes, on
/// the caller's thread; one at a time for the same directories. docs/power-loss.md tells how.
class RecoveryCollectManager {
 public:
  /// Moves every file of the directory into which events are saved to the one that Collect reads, so that the next
  /// power failure finds room and old and new do not mix. A missing directory holds nothing. Nothing is overwritten: a
  /// file whose name is taken there by another stays. False, after a line in the log that names the file, when one
  /// stays.
  static bool MoveBackup(const std::string& backupDir = "/root/power_failure/",
                         const std::string& restoreDir = "/root/power_restore/");

  /// Turns the saved files into what the event's collect would have delivered: an MP4 for each camera, with the event's
  /// sound when there is any, and the files of the other sources. Each source is removed when its product is on the
  /// disk. Both directories of `input` get the "/" at their ends that they may lack. False, after a line in the log
  /// that names the file, when a saved file is still in the restore directory; `output` tells what there is all the
  /// same.
  static bool Collect(RecoveryCollectInput& input, RecoveryCollectOutput& output);
};

}  // namespace Tavi::RecoveryCollect
