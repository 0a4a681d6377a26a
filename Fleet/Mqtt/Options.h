// What tavi-mqtt is told on its command line.
#pragma once

#include <iosfwd>
#include <optional>
#include <string>

#include "Fleet/Mqtt/Settings.h"

namespace Tavi::Mqtt {

inline constexpr int FailureStatus = 1;
inline constexpr int UsageStatus = 2;

/// Reads the command line, the settings and the password. Empty when the program is to run, with complete and checked
/// `settings`; otherwise its exit status: what there is to say was said.
std::optional<int> ParseOptions(int argc, const char* const* argv, Settings& settings, std::string& password,
                                std::ostream& out, std::ostream& err);

}  // namespace Tavi::Mqtt
