// The simulated microphone as ALSA's default device, through the configuration that the car writes.
#include <alsa/asoundlib.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <vector>

#include "Simulator/SimulatedCar.h"
#include "Support/Fixtures.h"

namespace Tavi::Simulator {
namespace {

constexpr unsigned Rate = 44100;
constexpr int Period = 441;

double Seconds(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

class AlsaTickTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(m_car.GetProblem(), "");
    ASSERT_EQ(snd_pcm_open(&m_pcm, "default", SND_PCM_STREAM_CAPTURE, SND_PCM_NONBLOCK), 0);
    ASSERT_EQ(snd_pcm_nonblock(m_pcm, 0), 0);
    Configure();
  }
  void TearDown() override {
    if (m_pcm != nullptr) snd_pcm_close(m_pcm);
    snd_config_update_free_global();
  }

  /// Periods of 10 ms in a buffer of 200 ms and a wake-up for each, as GStreamer asks for.
  void Configure() {
    snd_pcm_hw_params_t* hardware = nullptr;
    snd_pcm_hw_params_alloca(&hardware);
    snd_pcm_hw_params_any(m_pcm, hardware);
    ASSERT_EQ(snd_pcm_hw_params_set_access(m_pcm, hardware, SND_PCM_ACCESS_RW_INTERLEAVED), 0);
    ASSERT_EQ(snd_pcm_hw_params_set_format(m_pcm, hardware, SND_PCM_FORMAT_S16_LE), 0);
    ASSERT_EQ(snd_pcm_hw_params_set_channels(m_pcm, hardware, 1), 0);
    ASSERT_EQ(snd_pcm_hw_params_set_rate(m_pcm, hardware, Rate, 0), 0);
    ASSERT_EQ(snd_pcm_hw_params_set_period_size(m_pcm, hardware, Period, 0), 0);
    ASSERT_EQ(snd_pcm_hw_params_set_buffer_size(m_pcm, hardware, 20 * Period), 0);
    ASSERT_EQ(snd_pcm_hw_params(m_pcm, hardware), 0);
  }

  /// Reads all of `samples` period by period. False when the machine let the reader wait for longer than the buffer is,
  /// with the capture ready to be started anew.
  bool Read(std::vector<std::int16_t>& samples) {
    for (std::size_t at = 0; at < samples.size();) {
      const auto got = snd_pcm_readi(m_pcm, &samples[at], std::min<std::size_t>(Period, samples.size() - at));
      if (got == -EPIPE) return snd_pcm_prepare(m_pcm), false;
      EXPECT_GT(got, 0) << snd_strerror(static_cast<int>(got));
      if (got <= 0) return true;
      at += static_cast<std::size_t>(got);
    }
    return true;
  }

  SimulatedCar m_car;
  snd_pcm_t* m_pcm = nullptr;
};

TEST_F(AlsaTickTest, DeliversAtTheClocksPaceWithTicksOnFullSeconds) {
  std::vector<std::int16_t> samples(Rate * 22 / 10);
  double start = 0;
  double wallStart = 0;
  double startTook = 0;
  do {
    start = Seconds(CLOCK_MONOTONIC);
    wallStart = Seconds(CLOCK_REALTIME);
    ASSERT_EQ(snd_pcm_start(m_pcm), 0);
    startTook = Seconds(CLOCK_REALTIME) - wallStart;
  } while (!Read(samples));
  EXPECT_GE(Seconds(CLOCK_MONOTONIC) - start, 2.19);
  EXPECT_LE(Seconds(CLOCK_MONOTONIC) - start, 2.6) << "a reader that is later is told so";
  int ticks = 0;
  // One that sounds already at the start has no onset here.
  for (std::size_t i = 0, quiet = 0; i < samples.size(); ++i, ++quiet) {
    if (std::abs(samples[i]) < 1000) continue;
    if (quiet >= Rate / 100) {
      const double wall = wallStart + static_cast<double>(i) / Rate;
      EXPECT_NEAR(wall, std::round(wall), 0.001 + startTook) << "onset of tick " << ticks;
      ++ticks;
    }
    quiet = 0;
  }
  EXPECT_GE(ticks, 2);
}

TEST_F(AlsaTickTest, ALateReaderIsToldAndCanGoOn) {
  std::vector<std::int16_t> samples(Period);
  ASSERT_EQ(snd_pcm_readi(m_pcm, samples.data(), samples.size()), Period);
  usleep(300'000);
  EXPECT_TRUE(Testing::WaitUntil([&] { return snd_pcm_wait(m_pcm, 1000) == -EPIPE; }));
  EXPECT_EQ(snd_pcm_readi(m_pcm, samples.data(), samples.size()), -EPIPE);
  EXPECT_EQ(snd_pcm_state(m_pcm), SND_PCM_STATE_XRUN);
  ASSERT_EQ(snd_pcm_prepare(m_pcm), 0);
  samples.resize(20 * Period);
  double start = 0;
  do {
    start = Seconds(CLOCK_MONOTONIC);
  } while (!Read(samples));
  EXPECT_GE(Seconds(CLOCK_MONOTONIC) - start, 0.19);
  EXPECT_LE(Seconds(CLOCK_MONOTONIC) - start, 1.0);
}

}  // namespace
}  // namespace Tavi::Simulator
