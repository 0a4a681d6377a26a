// The MP4 files: what a player reads from them, and that nothing half-made is left behind.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
#include <random>

#include "KMedia/FFMpeg/FFMpeg.h"
#include "Simulator/EncodedMaterial.h"
#include "Support/Fixtures.h"
#include "Support/SoundDecode.h"
#include "Support/VideoDecode.h"

namespace {

using namespace Tavi::Simulator;
using namespace Tavi::Testing;
using KMedia::FFMpeg;

class MuxTest : public TempDirTest {
 protected:
  /// Muxes in.h264, and the sound when there is a name for it.
  bool Mux(const std::string& audio = "", float fps = 30.0F, const std::string& output = "out.mp4") {
    FFMpeg::FFmpefCfg config;
    config.fps = fps;
    config.audioDelayNs = m_audioDelayNs;
    config.timestampsNs = m_timestamps;
    FFMpeg::SetPath(config.video, m_dir + "in.h264");
    FFMpeg::SetPath(config.audio, m_dir + audio);
    FFMpeg::SetPath(config.output, m_dir + output);
    return audio.empty() ? FFMpeg(&config).RemuxVideoFile() : FFMpeg(&config).MuxVideoAndAudio();
  }
  void WriteVideo(const std::vector<std::uint8_t>& bytes) const { WriteBytes(m_dir + "in.h264", bytes); }
  /// Files in the directory other than the two inputs.
  long CountProducts() const {
    const auto isProduct = [](const auto& entry) { return entry.path().stem() != "in"; };
    return std::count_if(std::filesystem::directory_iterator(m_dir), std::filesystem::directory_iterator(), isProduct);
  }

  std::int64_t m_audioDelayNs = 0;
  std::vector<std::uint64_t> m_timestamps;
};

TEST_F(MuxTest, CarriesTheRateExactlyWithKeyFramesAndTheIndexInFront) {
  constexpr int Frames = 61;
  WriteVideo(Join(EncodeH264(320, 176, 30, 15, Frames)));
  const std::tuple<float, int, int> rates[] = {{30.0F, 30, 1}, {15.0F, 15, 1}, {29.97F, 30000, 1001}, {12.5F, 25, 2}};
  for (const auto& [fps, numerator, denominator] : rates) {
    ASSERT_TRUE(Mux("", fps));
    const DecodedVideo video = DecodeVideo(m_dir + "out.mp4");
    const double period = static_cast<double>(denominator) / numerator;
    EXPECT_EQ(std::pair(video.rateNumerator, video.rateDenominator), std::pair(numerator, denominator));
    EXPECT_NEAR(video.durationSeconds, Frames * period, 1e-9);
    ASSERT_EQ(video.frames.size(), static_cast<std::size_t>(Frames));
    for (int i = 0; i < Frames; ++i) {
      EXPECT_NEAR(video.frames[i].seconds, i * period, 1e-9);
      EXPECT_EQ(video.frames[i].key, i % 15 == 0) << i;
    }
    EXPECT_EQ(video.decodeErrors, 0);
    EXPECT_EQ(video.codecTag, "avc1");
    EXPECT_TRUE(video.indexFirst);
    EXPECT_EQ(std::pair(video.width, video.height), std::pair(320, 176));
    EXPECT_EQ(video.audioSeconds, 0.0);
  }
  WriteBytes(m_dir + "in.mp3", EncodeMp3(2.0));
  ASSERT_TRUE(Mux("in.mp3"));
  const DecodedVideo video = DecodeVideo(m_dir + "out.mp4");
  EXPECT_EQ(video.frames.size(), static_cast<std::size_t>(Frames));
  EXPECT_NEAR(video.audioSeconds, 2.0, 0.1);
  EXPECT_TRUE(video.indexFirst);
  EXPECT_EQ(CountProducts(), 1);
}

// Catches 25 seconds that play in 15, and an even source whose frames are made uneven by its jitter.
TEST_F(MuxTest, FramesHaveTheirOwnTimesWhereTheSourceDoesNotKeepItsRate) {
  constexpr double Interval = 1.0 / 30;
  constexpr std::size_t Frames = 60;
  WriteVideo(Join(EncodeH264(320, 176, 30, 15, Frames)));
  const auto onGrid = [](std::size_t n) { return n * Interval; };
  const auto jitters = [](std::size_t n) { return n * Interval + (n % 3) * 0.005; };
  const auto halves = [](std::size_t n) { return n * 2 * Interval; };
  const auto standsStill = [](std::size_t n) { return n * Interval + (n > 20 ? 4.01 : 0.0); };
  const struct {
    const char* what;
    std::function<double(std::size_t)> captured, shown;
    std::size_t stamped;
  } cases[] = {
      {"within half a frame", jitters, onGrid, Frames},
      {"half the rate, as at night", halves, halves, Frames},
      {"four seconds without a frame", standsStill, standsStill, Frames},
      {"a companion that was cut", halves,
       [&](std::size_t n) { return halves(std::min<std::size_t>(n, 9)) + (n > 9 ? (n - 9) * Interval : 0.0); }, 10}};
  for (const auto& c : cases) {
    m_timestamps.clear();
    for (std::size_t n = 0; n < c.stamped; ++n)
      m_timestamps.push_back(static_cast<std::uint64_t>(5e9 + c.captured(n) * 1e9));
    ASSERT_TRUE(Mux());
    const DecodedVideo video = DecodeVideo(m_dir + "out.mp4");
    ASSERT_EQ(video.frames.size(), Frames) << c.what;
    for (std::size_t n = 0; n < Frames; ++n) ASSERT_NEAR(video.frames[n].seconds, c.shown(n), 2e-5) << c.what << n;
    EXPECT_EQ(video.decodeErrors, 0);
  }
}

// Catches sound that is pushed to the clip's start whatever its own start was.
TEST_F(MuxTest, PlacesTheSoundByItsDelay) {
  constexpr double FrameSeconds = 1152.0 / 44100;
  WriteVideo(Join(EncodeH264(320, 176, 30, 30, 90)));
  WriteBytes(m_dir + "in.mp3", EncodeMp3(3.0));
  const double whole = DecodeSound(m_dir + "in.mp3").samples.size();
  for (const double delay : {0.0, 0.31, -0.01, -0.5, -FrameSeconds}) {
    SCOPED_TRACE(delay);
    m_audioDelayNs = std::llround(delay * 1e9);
    ASSERT_TRUE(Mux("in.mp3"));
    const DecodedSound sound = DecodeSound(m_dir + "out.mp4");
    const double left = std::ceil(std::max(-delay, 0.0) / FrameSeconds - 1e-6);  // frames before the video
    EXPECT_NEAR(sound.startSeconds, delay + left * FrameSeconds, 1e-3);
    EXPECT_NEAR(sound.samples.size(), whole - left * 1152, 1.0);
    EXPECT_EQ(DecodeVideo(m_dir + "out.mp4").frames.front().seconds, 0.0);
  }
  for (const double delay : {-3600.0, 3600.0}) {
    m_audioDelayNs = std::llround(delay * 1e9);
    ASSERT_TRUE(Mux("in.mp3")) << "the video is worth having without it";
    EXPECT_TRUE(DecodeSound(m_dir + "out.mp4").samples.empty());
  }
  EXPECT_EQ(CountLogged("there is no sound"), 2);
}

TEST_F(MuxTest, DeliversTheWholeFramesAndNoFileWithoutAny) {
  const auto units = EncodeH264(320, 176, 15, 15, 20);
  const auto whole = Join(units);
  const auto first = [&](std::size_t bytes) { return std::vector(whole.data(), whole.data() + bytes); };
  const std::size_t end = whole.size();
  const std::size_t last = units.back().size();
  const std::vector<std::uint8_t> garbage(5000, 0x5A);
  // Streams and the frames that they are good for.
  const std::multimap<std::size_t, std::vector<std::uint8_t>> cases{{20, whole},
                                                                    {19, first(end - 1)},
                                                                    {19, first(end - 30)},
                                                                    {19, first(end - last / 2)},
                                                                    {19, first(end - last + 5)},
                                                                    {0, first(units[0].size() / 2)},
                                                                    {0, Join({units.begin() + 1, units.begin() + 15})},
                                                                    {0, garbage},
                                                                    {0, {}}};
  EXPECT_FALSE(Mux()) << "no input at all";
  for (const auto& [frames, bytes] : cases) {
    WriteVideo(bytes);
    ClearLog();
    EXPECT_EQ(Mux(), frames > 0) << GetLog();
    EXPECT_EQ(CountLogged("in.h264 ends within a frame"), frames == 19 ? 1 : 0) << GetLog();
    EXPECT_EQ(CountProducts(), frames > 0 ? 1 : 0);
    const DecodedVideo video = DecodeVideo(m_dir + "out.mp4");
    EXPECT_EQ(video.frames.size(), frames) << bytes.size();
    EXPECT_EQ(video.decodeErrors, 0);
    std::filesystem::remove(m_dir + "out.mp4");
  }
  WriteVideo(whole);
  EXPECT_FALSE(Mux("in.mp3")) << "the audio file is missing";
  WriteBytes(m_dir + "in.mp3", garbage);
  EXPECT_FALSE(Mux("in.mp3"));
  for (const float fps : {0.0F, -1.0F, NAN, INFINITY}) EXPECT_FALSE(Mux("", fps)) << fps;
  EXPECT_EQ(CountProducts(), 0);
}

TEST_F(MuxTest, AFileThatCannotBeFinishedLeavesTheOldOne) {
  WriteVideo(Join(EncodeH264(640, 352, 30, 30, 60)));
  EXPECT_FALSE(Mux("", 30.0F, "missing/out.mp4"));
  const std::string full = m_dir + "full";
  std::filesystem::create_directory(full);
  if (mount("tmpfs", full.c_str(), "tmpfs", 0, "size=64k") != 0) GTEST_SKIP() << "nothing can be mounted";
  WriteBytes(full + "/out.mp4", {'o', 'l', 'd'});
  EXPECT_FALSE(Mux("", 30.0F, "full/out.mp4"));
  EXPECT_EQ(CountLogged("No such file"), 1) << GetLog();
  EXPECT_EQ(CountLogged("No space left on device"), 1) << GetLog();
  EXPECT_EQ(ReadFile(full + "/out.mp4"), "old");
  EXPECT_FALSE(std::filesystem::exists(full + "/out.mp4.part"));
  umount(full.c_str());
}

TEST_F(MuxTest, APathThatDoesNotFitIsRefusedWithoutOverflow) {
  FFMpeg::FFmpefCfg config;
  EXPECT_TRUE(FFMpeg::SetPath(config.video, std::string(255, 'a')));
  EXPECT_EQ(config.audio[0], '\0');
  EXPECT_FALSE(FFMpeg::SetPath(config.video, std::string(256, 'b')));
  EXPECT_EQ(std::string(config.video), std::string(255, 'a'));
  std::fill(std::begin(config.output), std::end(config.output), 'o');
  EXPECT_FALSE(FFMpeg(&config).RemuxVideoFile());
  EXPECT_EQ(CountLogged("a path of the mux request is longer than 255"), 1) << GetLog();
}

TEST_F(MuxTest, DamagedInputHarmsNobodyAndTheConsoleStaysClean) {
  const auto whole = Join(EncodeH264(160, 96, 15, 5, 12, "slices=2"));
  std::mt19937 random(3);
  int muxed = 0;
  testing::internal::CaptureStderr();
  for (int round = 0; round < 200; ++round) {
    auto bytes = whole;
    // Early bytes too, where the parameter sets are.
    for (unsigned i = random() % 20; i > 0; --i) bytes[random() % (i % 2 == 0 ? bytes.size() : 100)] = random() & 0xFFU;
    WriteVideo(bytes);
    ClearLog();
    const bool done = Mux();
    muxed += done ? 1 : 0;
    EXPECT_EQ(CountLogged("[ERROR]"), done ? 0 : 1) << GetLog();
    EXPECT_EQ(CountProducts(), done ? 1 : 0);
    std::filesystem::remove(m_dir + "out.mp4");
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_GT(muxed, 20);
  EXPECT_LT(muxed, 200);
}

}  // namespace
