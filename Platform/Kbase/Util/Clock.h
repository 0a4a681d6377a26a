// The clock that time limits and waits go by, replaceable where a test must not wait.
#pragma once

#include <chrono>

namespace Kbase::Util {

/// A monotonic clock with its own sleep. Thread-safe.
class IClock {
 public:
  using Milliseconds = std::chrono::milliseconds;
  virtual ~IClock() = default;
  /// Time since an arbitrary fixed point; never runs backwards.
  virtual Milliseconds Now() = 0;
  /// Blocks the calling thread for `duration`; a sleep that a signal cuts short is resumed for the rest.
  virtual void Sleep(Milliseconds duration) = 0;

  /// The system's steady clock, alive for the whole process.
  static IClock& Steady();
};

}  // namespace Kbase::Util
