// When each frame of a clip is shown.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace KMedia {

/// A frame rate as a fraction.
struct FrameRate {
  int numerator = 0;
  int denominator = 1;

  /// The fraction that `fps` stands for: whole numbers and the NTSC family (n * 1000 / 1001) exactly, others to 1/1000.
  /// The numerator is 0 for what is no rate.
  static FrameRate FromFps(float fps);
};

/// A clip's time line, from 0 at its first frame. A frame that lies within half a frame interval of the rate's grid is
/// put on it, so that an even source has even frames; one that does not has its own time, and the grid goes on from
/// there: a camera that delivers less, or stands still for a while, is shown as it was.
class FrameTimes {
 public:
  /// One unit of GetTime, in seconds, as a fraction.
  struct Unit {
    int numerator = 1;
    int denominator = 1;
  };

  /// `timestampsNs` of the first frames by the source's clock, in nanoseconds; those behind follow on the grid. Empty:
  /// all do.
  FrameTimes(FrameRate rate, std::span<const std::uint64_t> timestampsNs, std::size_t frames);

  [[nodiscard]] FrameRate GetRate() const { return m_rate; }
  [[nodiscard]] Unit GetUnit() const;
  /// When frame `n` begins; that of the number of frames is the clip's end. Strictly rising.
  [[nodiscard]] std::int64_t GetTime(std::size_t n) const;
  [[nodiscard]] double GetEndSeconds() const;

 private:
  const FrameRate m_rate;
  const std::size_t m_frames;
  /// In units of 1/90000 s; empty while all frames lie on one grid.
  std::vector<std::int64_t> m_ticks;
};

}  // namespace KMedia
