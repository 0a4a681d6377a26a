// Everything the acquisition needs to know before it starts.
#pragma once

#include <cstdint>

#include "Tavi/Accel/AccConfig.h"
#include "Tavi/Audio/AudioConfig.h"
#include "Tavi/Gps/GpsConfig.h"
#include "Tavi/Other/OtherConfig.h"
#include "Tavi/Video/VideoConfig.h"

namespace Tavi::Pipeline {

/// One record per source, each behind a flag; a source whose flag is false is not created at all. Plain values, copied
/// by whoever receives them.
struct PipelineConfig {
  /// The member defaults, with each camera's own device, rate and port. Camera 0 is wired to the second video device.
  PipelineConfig();

  bool camera0Enabled = true;
  Video::VideoConfig camera0;
  bool camera1Enabled = true;
  Video::VideoConfig camera1;
  bool audioEnabled = true;
  Audio::AudioConfig audio;
  bool gpsEnabled = true;
  Gps::GpsConfig gps;
  bool accEnabled = true;
  Accel::AccConfig acc;
  bool otherEnabled = true;
  Other::OtherConfig other;
  /// Seconds after which a silent camera or microphone is started anew, with growing pauses while that does not help:
  /// first its branch, then the pipeline. 0 leaves it to whoever looks.
  std::int32_t restartAfterSeconds = 0;
  /// One device's fault stops nothing else: what is there records, what is missing is left out and tried again with
  /// growing pauses, and no error restarts the unit. Without it the first error may.
  bool keepGoing = false;
  /// What remains while it keeps going: minutes after which a source that is not optional, and that nothing has brought
  /// back, restarts the unit; so never more often than that. 0 for never.
  std::int32_t restartUnitAfterMinutes = 0;
};

}  // namespace Tavi::Pipeline
