// The time base of one run of the simulated capture device.
#include "Simulator/AlsaTick/CaptureRun.h"

#include <cstdlib>
#include <ctime>
#include <limits>

namespace Tavi::Simulator {
namespace {

constexpr std::int64_t SecondNs = 1'000'000'000;
/// Below this the tick stays where it is: a frame lasts 23 us at 44100 Hz, and a reading is off by a microsecond or so.
constexpr std::int64_t ToleratedNs = 100'000;

std::int64_t ReadClock(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return time.tv_sec * SecondNs + time.tv_nsec;
}

struct Difference {
  std::int64_t wallMinusMonotonicNs;
  /// Between the two readings around the wall clock's: so far the difference may be off.
  std::int64_t gapNs;
};

/// Keeps the closest of three tries: a pre-emption between the readings would shift the sound.
Difference ReadDifference() {
  Difference best{0, std::numeric_limits<std::int64_t>::max()};
  for (int attempt = 0; attempt < 3 && best.gapNs > 2'000; ++attempt) {
    const std::int64_t before = MonotonicNs();
    const std::int64_t wall = ReadClock(CLOCK_REALTIME);
    const std::int64_t gap = MonotonicNs() - before;
    if (gap < best.gapNs) best = {wall - before - gap / 2, gap};
  }
  return best;
}

}  // namespace

std::int64_t MonotonicNs() {
  return ReadClock(CLOCK_MONOTONIC);
}

FrameTime::FrameTime(std::int64_t wallNs, std::int32_t roundedUp, unsigned rate)
    : m_rate(static_cast<std::int32_t>(rate)),
      m_stepNs(SecondNs / m_rate),
      m_stepParts(SecondNs % m_rate),
      m_sinceSecondNs(static_cast<std::int32_t>((wallNs % SecondNs + SecondNs) % SecondNs)),
      m_roundedUp(roundedUp) {}

CaptureRun::CaptureRun(unsigned rate)
    : m_rate(rate), m_startNs(MonotonicNs()), m_wallMinusMonotonicNs(ReadDifference().wallMinusMonotonicNs) {}

// Whole seconds apart: 64 bits would overflow after days otherwise.
std::uint64_t CaptureRun::CountFrames() const {
  const std::int64_t elapsedNs = MonotonicNs() - m_startNs;
  return static_cast<std::uint64_t>(elapsedNs / SecondNs * m_rate + elapsedNs % SecondNs * m_rate / SecondNs);
}

std::int64_t CaptureRun::WhenNs(std::uint64_t frames) const {
  const auto seconds = static_cast<std::int64_t>(frames / m_rate);
  const auto rest = static_cast<std::int64_t>(frames % m_rate);
  return m_startNs + seconds * SecondNs + (rest * SecondNs + m_rate - 1) / m_rate;
}

FrameTime CaptureRun::TimeFrom(std::uint64_t frame) const {
  const auto rest = static_cast<std::int64_t>(frame % m_rate) * SecondNs % m_rate;
  return {WallNs(frame), static_cast<std::int32_t>(rest == 0 ? 0 : m_rate - rest), m_rate};
}

void CaptureRun::FollowWallClock() {
  const Difference now = ReadDifference();
  if (now.gapNs > ToleratedNs / 2) return;
  const std::int64_t moved = std::llabs(now.wallMinusMonotonicNs - m_wallMinusMonotonicNs);
  if (moved > ToleratedNs) m_wallMinusMonotonicNs = now.wallMinusMonotonicNs;
}

}  // namespace Tavi::Simulator
