// Samples of whatever rate as samples of 100 Hz.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>

#include "Kdevice/ACC/Mounting.h"

namespace Kdevice::ACC {

/// Each sample that comes out is the mean, over its 10 ms, of the line through the samples that went in: a faster
/// sensor is averaged, a slower one filled in between, and one that keeps 100 Hz badly is put right. Thread-bound.
class Resampler {
 public:
  using Nanoseconds = std::chrono::nanoseconds;
  using Sink = std::function<void(const Mounting::Vector& g)>;

  static constexpr Nanoseconds Period = std::chrono::milliseconds(10);
  /// Longer without a sample nothing is filled in: nobody knows what happened then.
  static constexpr Nanoseconds LongestGap = std::chrono::milliseconds(250);

  /// `sink` is called within Feed.
  explicit Resampler(Sink sink) : m_sink(std::move(sink)) {}

  /// The sensor's sample of that moment. False where it does not follow on the one before, because it comes after a gap
  /// or is earlier: what comes out begins anew with it.
  bool Feed(Nanoseconds at, const Mounting::Vector& g);
  /// What comes next is another beginning.
  void Restart() { m_isRunning = false; }

 private:
  /// Adds the line from the last point to `to`.
  void Add(Nanoseconds at, const Mounting::Vector& to);

  const Sink m_sink;
  bool m_isRunning = false;
  /// The last point of the line, and where the present 10 ms end.
  Nanoseconds m_at{0};
  Mounting::Vector m_g{};
  Nanoseconds m_end{0};
  /// Under the line since they began, in g nanoseconds.
  std::array<double, 3> m_area{};
};

}  // namespace Kdevice::ACC
