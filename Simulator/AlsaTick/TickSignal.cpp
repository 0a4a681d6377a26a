// What the simulated microphone hears: quiet noise and a tick at each full second.
#include "Simulator/AlsaTick/TickSignal.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

namespace Tavi::Simulator {
namespace {

constexpr double NsPerSecond = 1e9;

/// Two rounds of xor-shift and multiplication mix a counter well enough for noise (C. Wellons, "Prospecting for hash
/// functions", lowbias32): the same sample always carries the same one.
std::uint32_t Hash(std::uint32_t value) {
  value = (value ^ (value >> 16)) * 0x7feb352dU;
  value = (value ^ (value >> 15)) * 0x846ca68bU;
  return value ^ (value >> 16);
}

/// Evenly from -NoisePeak to NoisePeak.
int Noise(std::uint32_t index) {
  constexpr std::uint32_t Range = 2 * TickSignal::NoisePeak + 1;
  return static_cast<int>((Hash(index) >> 16) * Range >> 16) - TickSignal::NoisePeak;
}

constexpr std::size_t SineSteps = 1024;

/// One period of a sine.
const auto g_sine = [] {
  std::array<double, SineSteps> table{};
  for (std::size_t i = 0; i < SineSteps; ++i) {
    table[i] = std::sin(2 * std::numbers::pi * static_cast<double>(i) / SineSteps);
  }
  return table;
}();

double Tick(std::int32_t sinceSecondNs) {
  if (sinceSecondNs >= TickSignal::TickNs) return 0;
  const std::int32_t toEdgeNs = std::min(sinceSecondNs, TickSignal::TickNs - sinceSecondNs);
  const double envelope = std::min(1.0, static_cast<double>(toEdgeNs) / static_cast<double>(TickSignal::EdgeNs));
  constexpr double StepsPerNs = TickSignal::FrequencyHz * SineSteps / NsPerSecond;
  const auto step = static_cast<std::size_t>(static_cast<double>(sinceSecondNs) * StepsPerNs + 0.5);
  return TickSignal::Peak * envelope * g_sine[step % SineSteps];
}

}  // namespace

std::int16_t TickSignal::At(std::int32_t sinceSecondNs, std::uint32_t index, double gain) {
  const double value = (Tick(sinceSecondNs) + Noise(index)) * gain;
  return static_cast<std::int16_t>(std::clamp(value, -32768.0, 32767.0));
}

void TickSignal::Render(std::span<std::int16_t> samples, FrameTime& time, std::uint32_t& index, double gain) {
  // In registers, 44,100 times a second.
  FrameTime now = time;
  std::uint32_t at = index;
  for (std::int16_t& sample : samples) {
    // Nearly all of them; the rest costs a sine.
    const bool isPlainNoise = now.SinceSecondNs() >= TickNs && gain == 1;
    sample = isPlainNoise ? static_cast<std::int16_t>(Noise(at)) : At(now.SinceSecondNs(), at, gain);
    now.Next();
    ++at;
  }
  time = now;
  index = at;
}

}  // namespace Tavi::Simulator
