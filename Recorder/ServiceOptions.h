// What `tavi-recorder run` is told on its command line.
#pragma once

#include <iosfwd>
#include <optional>

#include "Recorder/Settings/Settings.h"

namespace Tavi::Recorder {

/// Reads the words behind "run", and the settings file that they may name, into `settings`: what the command line says
/// wins. Empty when the service is to run; otherwise the exit status with which the program is to end: 0 after --help,
/// --print-config and --check-config, 2 after one line on `err` that names what is wrong and what would be right.
std::optional<int> ParseServiceOptions(int argc, const char* const* argv, Settings& settings, std::ostream& out,
                                       std::ostream& err);

}  // namespace Tavi::Recorder
