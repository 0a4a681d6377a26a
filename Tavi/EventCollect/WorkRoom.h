// How much room an event takes while it is collected.
#pragma once

#include <cstdint>
#include <string>

#include "Tavi/Pipeline/PipelineConfig.h"

namespace Tavi::PipelineCollect {

/// Bytes that the files of an event of so many seconds take at most at one time, from the configured bit rates: all
/// streams, and the MP4 that the larger camera's is being made into.
std::uint64_t EstimateWorkBytes(const Pipeline::PipelineConfig& config, int seconds, bool withPreview);

/// One line with what is free on the directory's file system; `when` says before or after what.
void LogFreeSpace(const std::string& directory, const std::string& when);
/// True when so many bytes are free on the directory's file system.
[[nodiscard]] bool HasRoom(const std::string& directory, std::uint64_t neededBytes);
/// Says beforehand what cannot go well: one line when less than `neededBytes` are free there.
void CompareRoom(const std::string& directory, std::uint64_t neededBytes);

}  // namespace Tavi::PipelineCollect
