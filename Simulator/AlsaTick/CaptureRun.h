// The time base of one run of the simulated capture device.
#pragma once

#include <cstdint>

namespace Tavi::Simulator {

/// Nanoseconds of CLOCK_MONOTONIC.
[[nodiscard]] std::int64_t MonotonicNs();

/// From the start of a capture on: how many frames exist, when a frame was or will be, and which wall time that is.
/// Frame n is the instant start + n / rate and exists from the next one on. Thread-bound.
class CaptureRun {
 public:
  CaptureRun() = default;
  /// Begins now.
  explicit CaptureRun(unsigned rate);

  /// Frames that exist now.
  [[nodiscard]] std::uint64_t CountFrames() const;
  /// CLOCK_MONOTONIC, rounded up, when `frames` frames exist.
  [[nodiscard]] std::int64_t WhenNs(std::uint64_t frames) const;
  /// CLOCK_REALTIME of a frame, by the difference of the clocks that FollowWallClock saw last.
  [[nodiscard]] std::int64_t WallNs(std::uint64_t frame) const { return WhenNs(frame) + m_wallMinusMonotonicNs; }
  /// Looks whether the wall clock was set or slewed away meanwhile.
  void FollowWallClock();

 private:
  unsigned m_rate = 1;
  std::int64_t m_startNs = 0;
  std::int64_t m_wallMinusMonotonicNs = 0;
};

}  // namespace Tavi::Simulator
