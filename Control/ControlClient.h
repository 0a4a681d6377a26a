// One request to a recorder and its reply.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

namespace Tavi::Recorder {

/// How long is waited, and who is told of it.
struct Patience {
  /// In all; empty: without end.
  std::optional<std::chrono::milliseconds> timeout;
  /// For a recorder that is not there yet; 0: not at all.
  std::chrono::milliseconds connect{0};
  /// Told once a second how long it has been; may be empty.
  std::function<void(std::chrono::seconds)> onWait;
};

/// Sends `line`, which has its end, to the recorder that listens at `socketPath` and gives its reply without the end.
/// Empty, with one sentence in `problem` that names the socket, when nobody comes, the recorder leaves or is silent, or
/// the reply is longer than a recorder's.
std::optional<std::string> Exchange(const std::string& socketPath, const std::string& line, const Patience& patience,
                                    std::string& problem);

}  // namespace Tavi::Recorder
