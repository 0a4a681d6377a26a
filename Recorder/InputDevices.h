// Whether the configured devices are there.
#pragma once

#include <string>

#include "Pipeline/PipelineConfig.h"

namespace Tavi::Recorder {

/// One sentence that names every configured camera whose device is missing or is no video capture device, or else the
/// GPS receiver whose device is; empty when all are there. `simulated` cameras need no device. A microphone and an
/// accelerometer that are missing do without: the rest records all the same.
std::string DescribeMissingDevices(const Pipeline::PipelineConfig& config, bool simulated);

}  // namespace Tavi::Recorder
