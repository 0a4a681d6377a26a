// Finds hits and hard braking in the accelerometer's samples.
#include "Recorder/Triggers/AccelerationTrigger.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace Tavi::Recorder::Triggers {
namespace {

constexpr double LearnSeconds = 1.0;
/// Time constant with which gravity is followed: slopes and bends in the road take longer than that to come about.
constexpr double FollowSeconds = 2.0;
/// Beyond this part of the threshold gravity is not followed. Ordinary braking for some seconds would otherwise become
/// the rest, and the end of it would add to the next acceleration.
constexpr double FollowedPart = 0.5;
/// No manoeuvre lasts longer (from 200 km/h to rest at 0.6 g: 9.4 s): the unit hangs in another way now.
constexpr double LongestManoeuvreSeconds = 10.0;
/// Sums of sample intervals are not exact.
constexpr double Tolerance = 1e-6;

double Distance(const std::array<double, 3>& a, const std::array<double, 3>& b) {
  return std::hypot(a[0] - b[0], a[1] - b[1], a[2] - b[2]);
}

}  // namespace

AccelerationTrigger::AccelerationTrigger(const Settings& settings, Callback callback)
    : m_settings(settings), m_callback(std::move(callback)) {
  Rearm();
}

/// Places of a block that nothing was delivered for hold exact zeros, which no car produces: gravity is always there.
void AccelerationTrigger::Feed(const Accel::AccDataPak& block, double sampleSeconds) {
  for (std::size_t i = 0; i + 3 <= block.g.size(); i += 3) {
    const Vector sample{block.g[i], block.g[i + 1], block.g[i + 2]};
    if (sample != Vector{}) Take(sample, sampleSeconds);
  }
}

void AccelerationTrigger::Restart() {
  m_rest = {};
  m_learntSeconds = 0.0;
  m_awaySeconds = 0.0;
  m_overSeconds = 0.0;
  m_peakG = 0.0;
}

void AccelerationTrigger::Rearm() {
  m_secondsSinceFiring = m_settings.rearmSeconds;
}

void AccelerationTrigger::Take(const Vector& sample, double seconds) {
  m_secondsSinceFiring += seconds;
  if (m_learntSeconds < LearnSeconds - Tolerance) {
    LearnRest(sample, seconds);
    return;
  }
  const double g = Distance(sample, m_rest);
  FollowRest(sample, g, seconds);
  Judge(g, seconds);
}

/// The mean so far.
void AccelerationTrigger::LearnRest(const Vector& sample, double seconds) {
  m_learntSeconds += seconds;
  const double part = m_learntSeconds > 0.0 ? seconds / m_learntSeconds : 1.0;
  for (std::size_t axis = 0; axis < m_rest.size(); ++axis) m_rest[axis] += (sample[axis] - m_rest[axis]) * part;
}

void AccelerationTrigger::FollowRest(const Vector& sample, double g, double seconds) {
  const bool isAway = g > m_settings.thresholdG * FollowedPart;
  m_awaySeconds = isAway ? m_awaySeconds + seconds : 0.0;
  if (isAway && m_awaySeconds < LongestManoeuvreSeconds) return;
  const double part = std::min(seconds / FollowSeconds, 1.0);
  for (std::size_t axis = 0; axis < m_rest.size(); ++axis) m_rest[axis] += (sample[axis] - m_rest[axis]) * part;
}

void AccelerationTrigger::Judge(double g, double seconds) {
  if (!(g > m_settings.thresholdG)) {
    m_hasFallen = true;
    m_overSeconds = 0.0;
    m_peakG = 0.0;
    return;
  }
  m_overSeconds += seconds;
  m_peakG = std::max(m_peakG, g);
  const bool isHeld = m_overSeconds * 1000.0 >= m_settings.holdMs - Tolerance;
  if (!isHeld || !m_hasFallen || m_secondsSinceFiring < m_settings.rearmSeconds - Tolerance) return;
  m_hasFallen = false;
  m_secondsSinceFiring = 0.0;
  m_callback({m_peakG, static_cast<int>(std::lround(m_overSeconds * 1000.0))});
}

}  // namespace Tavi::Recorder::Triggers
