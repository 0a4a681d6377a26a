// When each frame of a clip is shown.
#include "KMedia/FFMpeg/FrameTimes.h"

#include <algorithm>
#include <cmath>

namespace KMedia {
namespace {

/// The clock of H.264 over networks (RFC 6184, 5.1): every usual frame rate is a whole number of its ticks.
constexpr int TicksPerSecond = 90000;
constexpr double SecondNs = 1e9;

std::int64_t ToTicks(double ns) {
  return std::llround(ns * TicksPerSecond / SecondNs);
}

}  // namespace

FrameRate FrameRate::FromFps(float fps) {
  constexpr double Exact = 1e-3;
  const double rate = fps;
  if (!std::isfinite(rate) || rate <= 0.0 || rate > 100000.0) return {};
  const double whole = std::round(rate);
  if (std::abs(rate - whole) < 1e-5 && whole > 0) return {static_cast<int>(whole), 1};
  const double ntsc = std::round(rate * 1.001);
  if (std::abs(ntsc * 1000.0 / 1001.0 - rate) < Exact) return {static_cast<int>(ntsc) * 1000, 1001};
  const auto thousandths = static_cast<int>(std::lround(rate * 1000.0));
  return thousandths > 0 ? FrameRate{thousandths, 1000} : FrameRate{};
}

FrameTimes::FrameTimes(FrameRate rate, std::span<const std::uint64_t> timestampsNs, std::size_t frames)
    : m_rate(rate), m_frames(frames) {
  const double intervalNs = SecondNs * rate.denominator / rate.numerator;
  const auto stamped = timestampsNs.first(std::min(timestampsNs.size(), frames));
  std::vector<std::int64_t> ticks;
  ticks.reserve(frames + 1);
  // The grid: where it begins, relative to the first frame, and how many of its intervals have passed.
  double anchorNs = 0.0;
  double intervals = 0.0;
  bool isEven = true;
  for (std::size_t n = 0; n <= frames; ++n, ++intervals) {
    double timeNs = anchorNs + intervals * intervalNs;
    if (n < stamped.size()) {
      const auto ownNs = static_cast<double>(static_cast<std::int64_t>(stamped[n] - stamped[0]));
      if (std::abs(ownNs - timeNs) > intervalNs / 2) {
        isEven = false;
        timeNs = anchorNs = ownNs;
        intervals = 0.0;
      }
    }
    ticks.push_back(ticks.empty() ? 0 : std::max(ToTicks(timeNs), ticks.back() + 1));
  }
  if (!isEven) m_ticks = std::move(ticks);
}

FrameTimes::Unit FrameTimes::GetUnit() const {
  return m_ticks.empty() ? Unit{m_rate.denominator, m_rate.numerator} : Unit{1, TicksPerSecond};
}

std::int64_t FrameTimes::GetTime(std::size_t n) const {
  return m_ticks.empty() ? static_cast<std::int64_t>(n) : m_ticks[n];
}

double FrameTimes::GetEndSeconds() const {
  return static_cast<double>(GetTime(m_frames)) * GetUnit().numerator / GetUnit().denominator;
}

}  // namespace KMedia
