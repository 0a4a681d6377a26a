// What tavi-ctl is told on its command line.
#pragma once

#include <iosfwd>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "Control/Protocol.h"

namespace Tavi::Ctl {

struct CtlOptions {
  std::string socketPath = Recorder::DefaultControlSocket;
  /// The reply as it came instead of text for people.
  bool json = false;
  /// For the reply; without a value it is waited for as long as it takes.
  std::optional<double> timeoutSeconds;
  nlohmann::ordered_json request;
};

/// Reads the command line into `options`. Empty when there is a request to send; otherwise the exit status with which
/// the program is to end: 0 after --help, 2 after one line on `err` that names what is wrong and what would be right.
std::optional<int> ParseOptions(int argc, const char* const* argv, CtlOptions& options, std::ostream& out,
                                std::ostream& err);

}  // namespace Tavi::Ctl
