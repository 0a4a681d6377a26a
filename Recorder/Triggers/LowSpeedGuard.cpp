// Tells a vehicle that drives from one that is parked, loaded or washed.
#include "Recorder/Triggers/LowSpeedGuard.h"

namespace Tavi::Recorder::Triggers {
namespace {

constexpr LowSpeedGuard::Milliseconds Memory{10000};

}  // namespace

void LowSpeedGuard::Feed(const Gps::GpsData& fix, Milliseconds at) {
  if (fix.isValidPackage != 1 || !(fix.speed >= 0.0)) return;
  while (!m_speeds.empty() && m_speeds.back().knots <= fix.speed) m_speeds.pop_back();
  while (!m_speeds.empty() && m_speeds.front().at + Memory < at) m_speeds.pop_front();
  m_speeds.push_back({at, fix.speed});
}

bool LowSpeedGuard::IsAllowed(Milliseconds now) {
  while (!m_speeds.empty() && m_speeds.front().at + Memory < now) m_speeds.pop_front();
  return m_speeds.empty() || m_speeds.front().knots >= m_minSpeedKnots;
}

}  // namespace Tavi::Recorder::Triggers
