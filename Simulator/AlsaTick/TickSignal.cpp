// What the simulated microphone hears: quiet noise and a tick at each full second.
#include "Simulator/AlsaTick/TickSignal.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace Tavi::Simulator {
namespace {

constexpr std::int64_t SecondNs = 1'000'000'000;

/// The splitmix64 generator's output for a counter: the same sample always carries the same noise.
std::uint64_t Hash(std::uint64_t value) {
  value += 0x9e3779b97f4a7c15U;
  value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9U;
  value = (value ^ (value >> 27)) * 0x94d049bb133111ebU;
  return value ^ (value >> 31);
}

double Tick(std::int64_t sinceSecondNs) {
  if (sinceSecondNs >= TickSignal::TickNs) return 0;
  const std::int64_t toEdgeNs = std::min(sinceSecondNs, TickSignal::TickNs - sinceSecondNs);
  const double envelope = std::min(1.0, static_cast<double>(toEdgeNs) / static_cast<double>(TickSignal::EdgeNs));
  const double seconds = static_cast<double>(sinceSecondNs) / static_cast<double>(SecondNs);
  return TickSignal::Peak * envelope * std::sin(2 * std::numbers::pi * TickSignal::FrequencyHz * seconds);
}

}  // namespace

std::int16_t TickSignal::At(std::int64_t wallNs, std::uint64_t index, double gain) {
  const int noise = static_cast<int>(Hash(index) % (2 * NoisePeak + 1)) - NoisePeak;
  const std::int64_t sinceSecondNs = (wallNs % SecondNs + SecondNs) % SecondNs;
  const double value = (Tick(sinceSecondNs) + noise) * gain;
  return static_cast<std::int16_t>(std::clamp(value, -32768.0, 32767.0));
}

}  // namespace Tavi::Simulator
