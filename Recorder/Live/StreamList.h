// Which sources there are to watch live, and what they are.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "Recorder/Settings/Settings.h"
#include "Tavi/Pipeline/PipelineType.h"

namespace Tavi::Recorder::Live {

/// The sources of those names (LiveStreamNames), in their order; of none all that are enabled. Empty, with one sentence
/// in `problem`, when the settings leave one of them out.
std::optional<std::vector<Pipeline::PipelineType>> ChooseStreams(const Pipeline::PipelineConfig& config,
                                                                 const std::vector<std::string>& names,
                                                                 std::string& problem);

/// A list with "stream", a camera's "name" if it has one, "type" as events have it, "codec" (h264, mp3 or json), "fps",
/// the entries a second that the source is set to, and "bitrateKbps" of cameras and sound.
nlohmann::ordered_json DescribeStreams(const Settings& settings, const std::vector<Pipeline::PipelineType>& streams);

}  // namespace Tavi::Recorder::Live
