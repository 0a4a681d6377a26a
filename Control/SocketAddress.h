// The address of a Unix socket that has a path.
#pragma once

#include <sys/un.h>

#include <optional>
#include <string>

namespace Tavi::Recorder {

/// Empty, with one sentence in `problem`, when `path` is empty or longer than an address can hold (unix(7): 107 bytes).
std::optional<sockaddr_un> BuildSocketAddress(const std::string& path, std::string& problem);

}  // namespace Tavi::Recorder
