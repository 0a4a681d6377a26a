// Whether the configured devices are there.
#pragma once

#include <string>

#include "Pipeline/PipelineConfig.h"

namespace Tavi::Recorder {

/// One sentence that names every configured camera whose device is missing or is no video capture device; empty when
/// all are there.
std::string DescribeMissingDevices(const Pipeline::PipelineConfig& config);

}  // namespace Tavi::Recorder
