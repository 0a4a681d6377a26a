// How much room an event takes while it is collected.
#pragma once

#include <cstdint>

#include "Tavi/Pipeline/PipelineConfig.h"

namespace Tavi::PipelineCollect {

/// Bytes that the files of an event of so many seconds take at most at one time, from the configured bit rates: all
/// streams, and the MP4 that the larger camera's is being made into.
std::uint64_t EstimateWorkBytes(const Pipeline::PipelineConfig& config, int seconds, bool withPreview);

}  // namespace Tavi::PipelineCollect
