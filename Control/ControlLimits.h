// What one client of the control socket may take.
#pragma once

#include <chrono>
#include <cstddef>

#include "Control/Protocol.h"

namespace Tavi::Recorder {

struct ControlLimits {
  using Milliseconds = std::chrono::milliseconds;

  /// From the first byte of a request to its line end.
  Milliseconds lineTime{10'000};
  /// How long a client may leave its replies unread.
  Milliseconds readTime{10'000};
  /// How long a client may stay that asks for nothing and waits for nothing: it holds one of few places.
  Milliseconds idleTime{60'000};
  /// Of replies that a client has not read yet.
  std::size_t outputBytes = MaxReplyBytes;
  /// Requests of one client that are unanswered; the next one is not looked at before.
  std::size_t unanswered = 16;
  /// At once; whoever comes next waits in the backlog.
  std::size_t clients = 128;
};

}  // namespace Tavi::Recorder
