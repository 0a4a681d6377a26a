// How long a media file plays.
#pragma once

#include <optional>
#include <string>

namespace Tavi::Recorder {

/// The duration in seconds that the container states; empty when `path` is no media file or states none.
std::optional<double> ReadMediaDuration(const std::string& path);

}  // namespace Tavi::Recorder
