// The MP4 files: what a player reads from them, and that nothing half-made is left behind.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <random>
#include <thread>

#include "KMedia/FFMpeg/FFMpeg.h"
#include "KMedia/FFMpeg/Mp4Writer.h"
#include "Kbase/Klog/Logger.h"
#include "Support/VideoDecode.h"
#include "Support/VideoEncode.h"

namespace {

using namespace Tavi::Testing;
using KMedia::FFMpeg;

class MuxTest : public testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/tavi-mux-XXXXXX";
    m_dir = std::string(mkdtemp(pattern)) + "/";
    Kbase::Klog::Logger::GetInstance().SetConsole(false);
    Kbase::Klog::Logger::GetInstance().SetObserver(
        [this](Kbase::Klog::Level, std::string_view line) { m_log += std::string(line) + "\n"; });
  }
  void TearDown() override {
    Kbase::Klog::Logger::GetInstance().SetObserver({});
    std::filesystem::remove_all(m_dir);
  }

  bool Remux(float fps = 30.0F) { return Run(fps, "", "out.mp4"); }
  bool Mux(float fps = 30.0F) { return Run(fps, "in.mp3", "out.mp4"); }
  bool Run(float fps, const std::string& audio, const std::string& output) {
    FFMpeg::FFmpefCfg config;
    config.fps = fps;
    FFMpeg::SetPath(config.video, m_dir + "in.h264");
    FFMpeg::SetPath(config.audio, m_dir + audio);
    FFMpeg::SetPath(config.output, m_dir + output);
    return audio.empty() ? FFMpeg(&config).RemuxVideoFile() : FFMpeg(&config).MuxVideoAndAudio();
  }
  void WriteVideo(const std::vector<std::uint8_t>& bytes) const { WriteBytes(m_dir + "in.h264", bytes); }
  /// Names in the directory other than the two inputs.
  std::string ListProducts() const {
    std::string names;
    for (const auto& entry : std::filesystem::directory_iterator(m_dir)) {
      const auto name = entry.path().filename().string();
      if (name != "in.h264" && name != "in.mp3") names += name + " ";
    }
    return names;
  }

  std::string m_dir;
  std::string m_log;
};

TEST_F(MuxTest, CarriesTheRateExactlyWithKeyFramesAndTheIndexInFront) {
  const struct {
    float fps;
    int numerator, denominator;
  } cases[] = {{30.0F, 30, 1},         {15.0F, 15, 1}, {29.97F, 30000, 1001},
               {23.976F, 24000, 1001}, {12.5F, 25, 2}, {1.0F, 1, 1}};
  constexpr int Frames = 61;
  WriteVideo(Join(EncodeH264(320, 176, 30, 15, Frames)));
  for (const auto& c : cases) {
    ASSERT_TRUE(Remux(c.fps)) << c.fps;
    const DecodedVideo video = DecodeVideo(m_dir + "out.mp4");
    ASSERT_TRUE(video.opened);
    EXPECT_EQ(std::pair(video.rateNumerator, video.rateDenominator), std::pair(c.numerator, c.denominator));
    EXPECT_NEAR(video.durationSeconds, Frames * static_cast<double>(c.denominator) / c.numerator, 1e-9);
    ASSERT_EQ(video.frames.size(), static_cast<std::size_t>(Frames));
    for (int i = 0; i < Frames; ++i) {
      EXPECT_NEAR(video.frames[i].seconds, i * static_cast<double>(c.denominator) / c.numerator, 1e-9);
      EXPECT_EQ(video.frames[i].key, i % 15 == 0) << i;
    }
    EXPECT_EQ(video.decodeErrors, 0);
    EXPECT_EQ(video.codecTag, "avc1");
    EXPECT_TRUE(video.hasHeaderParameterSets);
    EXPECT_TRUE(video.indexFirst);
    EXPECT_EQ(std::pair(video.width, video.height), std::pair(320, 176));
    EXPECT_EQ(video.audioPackets, 0);
  }
  EXPECT_EQ(ListProducts(), "out.mp4 ");
}

TEST_F(MuxTest, CarriesTheSoundBesideThePicture) {
  WriteVideo(Join(EncodeH264(320, 176, 30, 30, 90)));
  WriteBytes(m_dir + "in.mp3", EncodeMp3(3.0));
  ASSERT_TRUE(Mux());
  const DecodedVideo video = DecodeVideo(m_dir + "out.mp4");
  EXPECT_EQ(video.frames.size(), 90U);
  EXPECT_TRUE(video.audioIsMp3);
  EXPECT_NEAR(video.audioSeconds, 3.0, 0.1);
  EXPECT_NEAR(video.audioPackets, 3.0 * 44100 / 1152, 3.0);
  EXPECT_TRUE(video.indexFirst);
}

TEST_F(MuxTest, ACutLastFrameIsLeftOutAndTheRestIsDelivered) {
  const auto units = EncodeH264(320, 176, 15, 15, 20);
  const auto whole = Join(units);
  for (const std::size_t cut : {std::size_t{1}, std::size_t{30}, units.back().size() / 2, units.back().size() - 5}) {
    m_log.clear();
    auto bytes = whole;
    bytes.resize(whole.size() - cut);
    WriteVideo(bytes);
    ASSERT_TRUE(Remux(15.0F)) << cut;
    const DecodedVideo video = DecodeVideo(m_dir + "out.mp4");
    EXPECT_EQ(video.frames.size(), 19U) << cut;
    EXPECT_EQ(video.decodeErrors, 0) << cut;
    EXPECT_NE(m_log.find("in.h264 ends within a frame: its last " + std::to_string(units.back().size() - cut)),
              std::string::npos)
        << m_log;
  }
}

TEST_F(MuxTest, WithoutAUsableFrameOrSoundThereIsNoFile) {
  const auto units = EncodeH264(320, 176, 15, 15, 15);
  const auto deltas = Join({units.begin() + 1, units.end()});
  auto half = units.front();
  half.resize(half.size() / 2);
  const std::vector<std::uint8_t> garbage(5000, 0x5A);
  EXPECT_FALSE(Remux()) << "no input at all";
  for (const auto& bytes : {std::vector<std::uint8_t>{}, garbage, deltas, half}) {
    WriteVideo(bytes);
    EXPECT_FALSE(Remux());
    EXPECT_EQ(ListProducts(), "");
  }
  WriteVideo(Join(units));
  EXPECT_FALSE(Mux()) << "the audio file is missing";
  for (const auto& bytes : {std::vector<std::uint8_t>{}, garbage}) {
    WriteBytes(m_dir + "in.mp3", bytes);
    EXPECT_FALSE(Mux());
  }
  for (const float fps : {0.0F, -1.0F, NAN, INFINITY}) EXPECT_FALSE(Remux(fps)) << fps;
  EXPECT_EQ(ListProducts(), "");
}

TEST_F(MuxTest, AFileThatCannotBeFinishedLeavesTheOldOne) {
  WriteVideo(Join(EncodeH264(640, 352, 30, 30, 60)));
  EXPECT_FALSE(Run(30.0F, "", "missing/out.mp4"));
  EXPECT_NE(m_log.find("cannot mux into " + m_dir + "missing/out.mp4: create: No such file"), std::string::npos)
      << m_log;

  std::filesystem::create_directory(m_dir + "full");
  if (mount("tmpfs", (m_dir + "full").c_str(), "tmpfs", 0, "size=64k") != 0) GTEST_SKIP() << "mounting needs root";
  WriteBytes(m_dir + "full/out.mp4", {'o', 'l', 'd'});
  m_log.clear();
  EXPECT_FALSE(Run(30.0F, "", "full/out.mp4"));
  EXPECT_NE(m_log.find("No space left on device"), std::string::npos) << m_log;
  EXPECT_EQ(std::filesystem::file_size(m_dir + "full/out.mp4"), 3U);
  EXPECT_FALSE(std::filesystem::exists(m_dir + "full/out.mp4.part"));
  umount((m_dir + "full").c_str());
}

TEST_F(MuxTest, APathThatDoesNotFitIsRefusedWithoutOverflow) {
  FFMpeg::FFmpefCfg config;
  EXPECT_TRUE(FFMpeg::SetPath(config.video, std::string(255, 'a')));
  EXPECT_EQ(config.audio[0], '\0');
  EXPECT_FALSE(FFMpeg::SetPath(config.video, std::string(256, 'b')));
  EXPECT_EQ(std::string(config.video), std::string(255, 'a'));

  std::fill(std::begin(config.output), std::end(config.output), 'o');
  EXPECT_FALSE(FFMpeg(&config).RemuxVideoFile());
  EXPECT_NE(m_log.find("a path of the mux request is longer than 255"), std::string::npos) << m_log;

  WriteVideo(Join(EncodeH264(160, 96, 30, 30, 5)));
  const std::string deep = std::string(255 - m_dir.size() - 101, 'd') + "/" + std::string(100, 'n');
  std::filesystem::create_directory(std::filesystem::path(m_dir + deep).parent_path());
  EXPECT_TRUE(Run(30.0F, "", deep));
  EXPECT_EQ(DecodeVideo(m_dir + deep).frames.size(), 5U);
}

TEST_F(MuxTest, DamagedInputHarmsNobodyAndTheConsoleStaysClean) {
  const auto whole = Join(EncodeH264(160, 96, 15, 5, 12, "slices=2"));
  const auto sound = EncodeMp3(0.5);
  std::mt19937 random(3);
  int muxed = 0;
  testing::internal::CaptureStderr();
  for (int round = 0; round < 200; ++round) {
    auto bytes = whole;
    // Early bytes too, where the parameter sets are.
    for (unsigned i = random() % 20; i > 0; --i) bytes[random() % (i % 2 == 0 ? bytes.size() : 100)] = random() & 0xFFU;
    WriteVideo(bytes);
    WriteBytes(m_dir + "in.mp3", sound);
    m_log.clear();
    const bool done = Mux();
    muxed += done ? 1 : 0;
    EXPECT_EQ(done, std::filesystem::exists(m_dir + "out.mp4"));
    const auto error = m_log.find("[ERROR]");
    EXPECT_EQ(done, error == std::string::npos) << m_log;
    EXPECT_TRUE(done || m_log.find("[ERROR]", error + 1) == std::string::npos) << m_log;
    std::filesystem::remove(m_dir + "out.mp4");
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_GT(muxed, 20);
  EXPECT_LT(muxed, 200);
  EXPECT_EQ(ListProducts(), "");
}

TEST_F(MuxTest, SeveralMuxesRunAtOnce) {
  WriteVideo(Join(EncodeH264(320, 176, 30, 30, 60)));
  WriteBytes(m_dir + "in.mp3", EncodeMp3(2.0));
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([this, i] { EXPECT_TRUE(Run(30.0F, "in.mp3", "out" + std::to_string(i) + ".mp4")); });
  }
  for (auto& thread : threads) thread.join();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(DecodeVideo(m_dir + "out" + std::to_string(i) + ".mp4").frames.size(), 60U);
}

}  // namespace
