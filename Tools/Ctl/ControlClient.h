// One request to a recorder and its reply.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

namespace Tavi::Ctl {

/// Sends `line`, which has its end, to the recorder that listens at `socketPath` and gives its reply without the end.
/// Blocks up to `timeout` in all, or without end when that is empty. Empty, with one sentence in `problem` that names
/// the socket, when nobody is there, the recorder leaves or is silent, or the reply is longer than a recorder's.
/// `onWait`, unless it is empty, is told once a second how long the reply has been waited for.
std::optional<std::string> Exchange(const std::string& socketPath, const std::string& line,
                                    std::optional<std::chrono::milliseconds> timeout,
                                    const std::function<void(std::chrono::seconds)>& onWait, std::string& problem);

}  // namespace Tavi::Ctl
