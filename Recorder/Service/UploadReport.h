// What a program that sends the events away says of itself, for the recorder's status.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace Tavi::Recorder {

/// Its fields that the status shows, with `ageSeconds` since they were stated by the machine's own uptime; a field of
/// another type than it should have is null. Null when `path` is empty or there is no such statement, as before the
/// first one since the machine started. Reads one small file, which is meant to lie in memory; reentrant.
nlohmann::ordered_json ReadUploadReport(const std::string& path);

}  // namespace Tavi::Recorder
