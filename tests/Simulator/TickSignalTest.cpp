// What the simulated microphone hears, sample by sample.
#include <gtest/gtest.h>

#include <array>

#include "Simulator/AlsaTick/TickSignal.h"

namespace Tavi::Simulator {
namespace {

// Catches a rounding error that adds up from frame to frame, and a short cut that changes a sample: what is rendered in
// blocks by addition is what dividing for each sample would give.
TEST(TickSignal, BlocksAreToTheBitWhatEachSampleIsByItsOwnTime) {
  constexpr std::int64_t SecondNs = 1'000'000'000;
  for (const unsigned rate : {8000U, 11025U, 44100U, 48000U, 96000U}) {
    const CaptureRun run(rate);
    for (const std::uint64_t first : {std::uint64_t{0}, std::uint64_t{12345}, (std::uint64_t{1} << 36) + 7}) {
      const double gain = first == 12345 ? 1.75 : 1;
      FrameTime time = run.TimeFrom(first);
      auto index = static_cast<std::uint32_t>(first);
      std::array<std::int16_t, 300> block{};
      int loud = 0;
      for (std::uint64_t frame = first; frame < first + 3 * rate;) {
        TickSignal::Render(block, time, index, gain);
        for (const std::int16_t sample : block) {
          const auto since = static_cast<std::int32_t>(run.WallNs(frame) % SecondNs);
          const auto expected = TickSignal::At(since, static_cast<std::uint32_t>(frame), gain);
          ASSERT_EQ(sample, expected) << rate << " Hz, frame " << frame;
          loud += std::abs(sample) > 1000 ? 1 : 0;
          ++frame;
        }
      }
      EXPECT_GT(loud, 3 * static_cast<int>(rate) * 20 / 1000) << rate << " Hz: ticks of 30 ms";
    }
  }
}

}  // namespace
}  // namespace Tavi::Simulator
