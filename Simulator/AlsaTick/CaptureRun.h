// The time base of one run of the simulated capture device.
#pragma once

#include <cstdint>

namespace Tavi::Simulator {

/// Nanoseconds of CLOCK_MONOTONIC.
[[nodiscard]] std::int64_t MonotonicNs();

/// When each of a run of frames is, by addition: 64 bits cost a 32-bit processor hundreds of instructions to divide,
/// and there are 44,100 frames a second.
class FrameTime {
 public:
  /// That of a frame at `wallNs` of CLOCK_REALTIME, which are `roundedUp` parts of 1/rate ns too many, 0 to rate - 1.
  FrameTime(std::int64_t wallNs, std::int32_t roundedUp, unsigned rate);

  /// Nanoseconds since the last full second of UTC: 0 to 999,999,999.
  [[nodiscard]] std::int32_t SinceSecondNs() const { return m_sinceSecondNs; }
  /// Goes on to the next frame.
  void Next() {
    m_sinceSecondNs += m_stepNs;
    m_roundedUp -= m_stepParts;
    if (m_roundedUp < 0) {
      m_roundedUp += m_rate;
      ++m_sinceSecondNs;
    }
    if (m_sinceSecondNs >= SecondNs) m_sinceSecondNs -= SecondNs;
  }

 private:
  static constexpr std::int32_t SecondNs = 1'000'000'000;

  std::int32_t m_rate;
  /// From a frame to the next: whole nanoseconds, and parts of 1/rate ns.
  std::int32_t m_stepNs;
  std::int32_t m_stepParts;
  std::int32_t m_sinceSecondNs;
  std::int32_t m_roundedUp;
};

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
  /// The same for a frame and those behind it, as long as no other difference is seen.
  [[nodiscard]] FrameTime TimeFrom(std::uint64_t frame) const;
  /// Looks whether the wall clock was set or slewed away meanwhile.
  void FollowWallClock();

 private:
  unsigned m_rate = 1;
  std::int64_t m_startNs = 0;
  std::int64_t m_wallMinusMonotonicNs = 0;
};

}  // namespace Tavi::Simulator
