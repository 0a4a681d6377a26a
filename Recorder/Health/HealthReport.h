// The sources' health as others read it.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "Recorder/Health/PrometheusText.h"
#include "Recorder/Health/SourceHealth.h"

namespace Tavi::Recorder {

/// One object a source under its name: {"camera0":{"state":"running","entries":900,"rate":30.01,"configuredRate":30.0,
/// "newestEntryAgeMs":12,"missed":0,"restarts":0},...}, with "name" of a camera that has one; the age is null without
/// an entry, rates are entries per second.
[[nodiscard]] nlohmann::ordered_json ToJson(const std::vector<SourceHealth>& sources);

/// The metrics "tavi_source_..." with the label "source", and "name" of a camera that has one. An age that there is
/// none of is left out.
void WritePrometheus(const std::vector<SourceHealth>& sources, PrometheusText& text);
/// The same alone.
[[nodiscard]] std::string ToPrometheus(const std::vector<SourceHealth>& sources);

}  // namespace Tavi::Recorder
