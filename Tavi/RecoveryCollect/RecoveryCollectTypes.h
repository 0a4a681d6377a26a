// What is asked of a recovery and what it delivers.
#pragma once

#include <string>
#include <vector>

#include "Tavi/PipelineCollect/PipelineCollectTypes.h"

namespace Tavi::RecoveryCollect {

/// One recovery request.
struct RecoveryCollectInput {
  /// Where the saved files of interrupted events lie; a missing directory holds none.
  std::string restoreDir = "/root/power_restore/";
  /// Where the products go; created when missing and needed.
  std::string outputDir;
  /// Frames per second of the camera of settings record `camera0`, whose files are called "video1_", and of `camera1`
  /// ("video0_"). They are not in the streams.
  float camera0Fps = 15.0F;
  float camera1Fps = 30.0F;
};

/// One recovered event.
struct RecoveredEvent {
  /// What its files share of their names.
  std::string name;
  /// `eventTime`: when the event was saved, as its name tells, else when its oldest file was last written. `outputs`:
  /// the full path of each product; `windows`: of those that have a companion beside them, which tells when their
  /// entries were. The other fields are not known any more and keep their defaults.
  PipelineCollect::PipelineCollectOutput output;
  /// Seconds that were recorded, as the name tells; 0 when it does not.
  unsigned int seconds = 0;
  /// Files of it lay in the restore directory when this call began.
  bool isNew = false;
  /// False while files of it are in the restore directory for which there was no room: the next call may make products
  /// of them, too.
  bool isComplete = true;
};

/// The state after a recovery, whether this call or an interrupted one before has brought it about.
struct RecoveryCollectOutput {
  /// Sorted by name. An event is listed as long as its products lie in the output directory: who has taken note of it
  /// moves them away, or knows it by its name.
  std::vector<RecoveredEvent> events;
  /// Full paths of what is still in the restore directory: foreign and empty files, and what could not be recovered.
  std::vector<std::string> leftovers;
};

}  // namespace Tavi::RecoveryCollect
