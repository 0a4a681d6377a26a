// The settings that a recorder runs with, and what is wrong or unsafe with it.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <vector>

#include "Recorder/Health/SourceHealth.h"
#include "Recorder/Settings/Settings.h"

namespace Tavi::Recorder {

/// {"settings":{...},"problems":["..."]}: the settings as their file has them, and a sentence for each thing that
/// somebody should look at, the worst first. `storage`: as EventArchive::Describe gives it. There is no secret in it:
/// settings name files with keys, and hold none. Asks the system for groups, which may block. Reentrant.
nlohmann::ordered_json DescribeSettings(const Settings& settings, const std::vector<SourceHealth>& sources,
                                        const nlohmann::ordered_json& storage);

}  // namespace Tavi::Recorder
