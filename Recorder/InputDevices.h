// Whether the configured devices are there.
#pragma once

#include <string>

#include "Tavi/Pipeline/PipelineConfig.h"

namespace Tavi::Recorder {

/// How the user chooses a device or leaves it out, for the sentence.
struct DeviceHints {
  const char* camera;
  const char* receiver;
  const char* noReceiver;
  const char* port;
};
inline constexpr DeviceHints OptionHints{"--device0 / --device1", "--gps", "--no-gps", "--port0 / --port1"};
inline constexpr DeviceHints SettingHints{"pipeline.camera0.device / pipeline.camera1.device", "pipeline.gps.path",
                                          "pipeline.gpsEnabled",
                                          "pipeline.camera0.streamPort / pipeline.camera1.streamPort"};

/// One sentence that names every configured camera whose device is missing or is no video capture device, or else the
/// GPS receiver whose device is, or else a live stream's port that is taken; empty when all are there. `simulated`
/// cameras need no device. A microphone and an accelerometer that are missing do without: the rest records all the
/// same.
std::string DescribeMissingDevices(const Pipeline::PipelineConfig& config, bool simulated, const DeviceHints& hints);

}  // namespace Tavi::Recorder
