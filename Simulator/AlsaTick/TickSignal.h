// What the simulated microphone hears: quiet noise and a tick at each full second.
#pragma once

#include <cstdint>
#include <span>

#include "Simulator/AlsaTick/CaptureRun.h"

namespace Tavi::Simulator {

/// The sound at a moment of wall time. Stateless and reentrant.
class TickSignal {
 public:
  /// From the full second on, as the simulated cameras' white frame.
  static constexpr std::int32_t TickNs = 30'000'000;
  static constexpr double FrequencyHz = 1000.0;
  /// Half of full scale.
  static constexpr double Peak = 16384.0;
  /// Swell and decay of the tick; without them its edges would be clicks.
  static constexpr std::int32_t EdgeNs = 500'000;
  /// Even distribution of +-180 has an RMS of 104, about -50 dB of full scale.
  static constexpr int NoisePeak = 180;

  /// The signed 16-bit sample so many nanoseconds, 0 to 999,999,999, behind a full second of UTC, amplified by `gain`
  /// and clipped; `index` numbers the samples and picks the noise.
  [[nodiscard]] static std::int16_t At(std::int32_t sinceSecondNs, std::uint32_t index, double gain);

  /// The samples from `time` and `index` on, which both go on behind them, each as At has it.
  static void Render(std::span<std::int16_t> samples, FrameTime& time, std::uint32_t& index, double gain);
};

}  // namespace Tavi::Simulator
