// Names of device nodes.
#pragma once

#include <string>
#include <vector>

namespace Tavi::Recorder::Devices {

/// "/dev/video0", "/dev/video1" and so on: what below `root` begins with "/dev/" and one of the prefixes and goes on
/// with nothing but a number. By prefix, then by number.
[[nodiscard]] std::vector<std::string> ListNodes(const std::string& root, const std::vector<std::string>& prefixes);
/// The number at its end; -1 without one.
[[nodiscard]] int GetNumber(const std::string& node);

}  // namespace Tavi::Recorder::Devices
