// The MP3 encoder: one frame a buffer, and time stamps that say when its sound is heard.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "SoftImx/GstRun.h"
#include "Support/SoundDecode.h"

namespace SoftImx::Test {
namespace {

class AudioEncoder : public Tavi::Testing::TempDirTest {};

// Catches the codec's delay of 25 ms left in the time stamps, half the sample rate at low bit rates, and joined frames.
TEST_F(AudioEncoder, ATickIsHeardWhenItWasRecorded) {
  for (const auto& [kilobits, rate] : {std::pair(32, 44100), {64, 44100}, {32, 48000}, {128, 32000}}) {
    const double frameSeconds = 1152.0 / rate;
    SCOPED_TRACE(kilobits);
    std::vector<double> stamps;
    std::vector<std::size_t> sizes;
    GstRun run(
        "audiotestsrc wave=ticks samplesperbuffer=441 num-buffers=450 timestamp-offset=250000000 ! audio/x-raw,rate=" +
        std::to_string(rate) + ",channels=2 ! tee name=t ! queue ! wavenc ! filesink buffer-mode=unbuffered location=" +
        m_dir + "in.wav t. ! queue ! imxmp3audioenc name=enc bitrate=" + std::to_string(kilobits) +
        " ! filesink buffer-mode=unbuffered location=" + m_dir + "out.mp3");
    run.OnBuffer("enc", [&](GstPad*, GstBuffer* buffer) {
      stamps.push_back(static_cast<double>(GST_BUFFER_PTS(buffer)) / GST_SECOND);
      sizes.push_back(gst_buffer_get_size(buffer));
    });
    ASSERT_TRUE(run.PlayUntil([&] { return stamps.size() > 170; }));
    run.Stop();
    for (std::size_t i = 1; i + 1 < stamps.size(); ++i) {
      EXPECT_NEAR(stamps[i] - stamps[i - 1], frameSeconds, 1e-4) << i;
      EXPECT_NEAR(static_cast<double>(sizes[i]), kilobits * 125.0 * frameSeconds, 1.0);
    }
    const auto recorded = Tavi::Testing::FindTicks(Tavi::Testing::DecodeSound(m_dir + "in.wav"));
    const auto sound = Tavi::Testing::DecodeSound(m_dir + "out.mp3");
    EXPECT_EQ(sound.sampleRate, rate);
    const auto ticks = Tavi::Testing::FindTicks(sound);
    ASSERT_GE(ticks.size(), 3U);
    for (std::size_t i = 0; i < ticks.size(); ++i) {
      EXPECT_NEAR(stamps[0] + ticks[i] - sound.startSeconds, 0.25 + recorded.at(i), 0.002) << i;
    }
  }
}

}  // namespace
}  // namespace SoftImx::Test
