// How the program's time follows from the machine's, where a preloaded clock stands between the two.
#include "Simulator/FastClock/TimeScale.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "Simulator/FastClock/Next.h"

namespace Tavi::FastClock {
namespace {

bool IsWallClock(clockid_t clock) {
  return clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE;
}

bool IsSteadyClock(clockid_t clock) {
  return clock == CLOCK_MONOTONIC || clock == CLOCK_MONOTONIC_COARSE || clock == CLOCK_MONOTONIC_RAW ||
         clock == CLOCK_BOOTTIME;
}

}  // namespace

const TimeScale& TimeScale::Get() {
  static const TimeScale scale;
  return scale;
}

TimeScale::TimeScale() {
  for (unsigned clock = 0; clock < m_startNs.size(); ++clock) m_startNs[clock] = AskMachine(static_cast<int>(clock));
  if (const char* speed = std::getenv("TAVI_CLOCK_SPEED")) m_speed = std::clamp(std::atof(speed), 0.01, 1000.0);
  double stepSeconds = 0;
  double afterSeconds = 0;
  const char* step = std::getenv("TAVI_CLOCK_STEP");
  if (step == nullptr || std::sscanf(step, "%lf@%lf", &stepSeconds, &afterSeconds) != 2) return;
  m_stepNs = static_cast<std::int64_t>(stepSeconds * 1e9);
  m_stepAfterNs = static_cast<std::int64_t>(afterSeconds * 1e9);
}

std::int64_t TimeScale::AskMachine(clockid_t clock) {
  static auto* const next = FindNext<int(clockid_t, timespec*)>(TAVI_TIME_NAME("clock_gettime", "__clock_gettime64"));
  timespec time{};
  return next(clock, &time) == 0 ? ToNs(time) : -1;
}

std::int64_t TimeScale::Now(clockid_t clock) const {
  return Show(clock, AskMachine(clock));
}

std::int64_t TimeScale::Show(clockid_t clock, std::int64_t machineNs) const {
  if (!IsWallClock(clock) && !IsSteadyClock(clock)) return machineNs;
  const std::int64_t startNs = StartOf(clock);
  const auto elapsedNs = static_cast<std::int64_t>(static_cast<double>(machineNs - startNs) * m_speed);
  const bool isOff = IsWallClock(clock) && elapsedNs < m_stepAfterNs;
  return startNs + elapsedNs + (isOff ? m_stepNs : 0);
}

std::int64_t TimeScale::Find(clockid_t clock, std::int64_t ns) const {
  if (!IsWallClock(clock) && !IsSteadyClock(clock)) return ns;
  const std::int64_t startNs = StartOf(clock);
  return startNs + Shorten(ns - startNs);
}

std::int64_t TimeScale::FindByGuess(std::int64_t ns) const {
  const auto distance = [&](clockid_t clock) { return std::llabs(ns - Now(clock)); };
  return Find(distance(CLOCK_MONOTONIC) < distance(CLOCK_REALTIME) ? CLOCK_MONOTONIC : CLOCK_REALTIME, ns);
}

int TimeScale::ShortenMs(int durationMs) const {
  return durationMs <= 0 ? durationMs : std::max(1, static_cast<int>(std::lround(durationMs / m_speed)));
}

}  // namespace Tavi::FastClock
