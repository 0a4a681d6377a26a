// The capture gain of the simulated microphone, as its mixer sets it.
#pragma once

#include <atomic>

namespace Tavi::Simulator {

/// One microphone, so one gain in the process. Thread-safe.
class GainControl {
 public:
  /// The mixer's scale; the middle leaves the sound as it is, the top doubles it.
  static constexpr long Lowest = 0;
  static constexpr long Middle = 50;
  static constexpr long Highest = 100;

  [[nodiscard]] static long Get() { return s_level; }
  /// Levels beyond the scale are refused: false.
  static bool Set(long level) {
    if (level < Lowest || level > Highest) return false;
    s_level = level;
    return true;
  }

 private:
  static inline std::atomic<long> s_level{Middle};
};

}  // namespace Tavi::Simulator
