// What tavi-web is told on its command line.
#pragma once

#include <iosfwd>
#include <optional>

#include "Fleet/Web/WebSettings.h"

namespace Tavi::Web {

/// Reads the command line and the settings file that it names. The exit status when there is nothing to run.
std::optional<int> ParseOptions(int argc, const char* const* argv, WebSettings& settings, std::ostream& out,
                                std::ostream& err);

}  // namespace Tavi::Web
