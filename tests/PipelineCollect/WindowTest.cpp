// Windows that are covered in time: sources that do not keep their rate, stand still, or are waited for too long.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <thread>

#include "Support/Media.h"
#include "Tavi/EventCollect/HeldWindow.h"
#include "Tavi/PipelineCollect/EntryTimes.h"
#include "Tavi/PipelineCollect/PipelineCollect.h"

namespace {

using namespace Tavi::PipelineCollect;
using Tavi::Testing::TestRing;
using Tavi::Testing::WaitUntil;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// Writes one byte an entry.
class CameraCollect final : public PipelineCollect {
 public:
  explicit CameraCollect(Kbase::Pipeline::IPipelineElement* ring)
      : PipelineCollect(ring, PipelineCollectType::VideoCamera0, "COLLECT-TEST") {}
  ~CameraCollect() override { Stop(); }
  bool Write(FILE* file, Kbase::Pipeline::IPipelineCbElement* entry) override {
    return std::fputc(entry->IsKeyFrame() ? 'K' : '.', file) != EOF;
  }
};

class WindowTest : public Tavi::Testing::MediaTest {
 protected:
  static constexpr int Fps = 50;

  void TearDown() override {
    m_feeding = false;
    if (m_feeder.joinable()) m_feeder.join();
    MediaTest::TearDown();
  }
  /// A camera that is set to Fps and delivers `rate`, a key frame every Fps frames, whose clock began at some time.
  void StartFeeding(const std::shared_ptr<TestRing>& ring, double rate) {
    m_feeding = true;
    m_feeder = std::thread([this, ring, rate] {
      const auto begin = Clock::now();
      for (int n = 0; m_feeding; ++n) {
        const auto due = begin + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(n / rate));
        std::this_thread::sleep_until(due);
        if (m_stalled) continue;
        AddMedia(*ring, static_cast<GstClockTime>((due - begin).count()), n % Fps == 0);
      }
    });
  }
  /// One second before `moment` to one second behind it, unless told otherwise.
  PipelineCollectConfig MakeConfig(Clock::time_point moment, int before = 1, int duration = 2) const {
    PipelineCollectConfig config{-before, duration, m_dir};
    config.care.moment = moment;
    config.care.cover = config.care.keepTimes = true;
    config.care.coverSeconds = duration;
    config.care.pace = 32;
    return config;
  }
  static Starts FindStarts(const std::shared_ptr<TestRing>& ring, const PipelineCollectConfig& config) {
    return StartSync({{PipelineCollectType::VideoCamera0, ring}}, -config.startSeconds, config.care).Find();
  }

  std::atomic<bool> m_stalled{false};

 private:
  std::atomic<bool> m_feeding{false};
  std::thread m_feeder;
};

TEST_F(WindowTest, IsCoveredInTimeWhateverTheSourceDelivers) {
  for (const double factor : {0.5, 1.0, 1.3}) {
    const auto ring = std::make_shared<TestRing>(32 * Fps, Fps);
    StartFeeding(ring, Fps * factor);
    std::this_thread::sleep_for(milliseconds(3700));
    CameraCollect collector(ring.get());
    auto config = MakeConfig(Clock::now());
    collector.Init(config);
    collector.SetStart(FindStarts(ring, config).at(PipelineCollectType::VideoCamera0));
    ASSERT_TRUE(collector.IThread::Start());
    ASSERT_TRUE(WaitUntil([&] { return !collector.IsRunning(); }));
    const auto window = collector.GetWindow();
    EXPECT_LE(window.fromSeconds, -1.0) << factor;
    EXPECT_GE(window.toSeconds, 1.0 - 0.01) << factor;
    EXPECT_GE(window.entries, 2U * Fps + 1) << "and in number";
    EXPECT_LE(window.toSeconds, factor < 1 ? 6.4 : 4.6) << factor << ", three seconds of it are a loaded machine's";
    const std::string written = Tavi::Testing::ReadFile(collector.GetPath());
    EXPECT_EQ(written.front(), 'K');
    const auto times = ReadTimesOf(collector.GetPath());
    ASSERT_TRUE(times);
    ASSERT_EQ(times->entries.size(), written.size());
    const auto seconds = times->GetSeconds();
    // The window also knows entries that are not in the file: on this machine the feeder may have waited for any.
    EXPECT_NEAR(seconds.back(), window.toSeconds, 1.0);
    EXPECT_NEAR((seconds.back() - seconds.front()) / static_cast<double>(seconds.size() - 1), 1 / (Fps * factor), 1e-4);
    collector.DeletePath();
    EXPECT_TRUE(std::filesystem::is_empty(m_dir)) << "the companion goes with its file";
    TearDown();
    SetUp();
  }
}

TEST_F(WindowTest, WhatLiesBehindIsWrittenAtOnceAlsoWhenNothingNewComes) {
  const auto ring = std::make_shared<TestRing>(32 * Fps, Fps);
  StartFeeding(ring, Fps);
  std::this_thread::sleep_for(milliseconds(2500));
  m_stalled = true;
  CameraCollect collector(ring.get());
  auto config = MakeConfig(Clock::now(), 2, 20);
  collector.Init(config);
  collector.SetStart(FindStarts(ring, config).at(PipelineCollectType::VideoCamera0));
  ASSERT_TRUE(collector.IThread::Start());
  const auto started = Clock::now();
  EXPECT_TRUE(WaitUntil([&] { return Tavi::Testing::ReadFile(collector.GetPath()).size() >= 100; }));
  EXPECT_LT(Clock::now() - started, milliseconds(4000)) << "less than a silence takes to be noticed";
}

TEST_F(WindowTest, ASourceThatStandsStillKeepsItsPlaceUntilNobodyWaits) {
  const auto ring = std::make_shared<TestRing>(32 * Fps, Fps);
  StartFeeding(ring, Fps);
  std::this_thread::sleep_for(milliseconds(1500));
  for (const bool comesBack : {true, false}) {
    CameraCollect collector(ring.get());
    auto config = MakeConfig(Clock::now(), 1, comesBack ? 8 : 60);
    collector.Init(config);
    collector.SetStart(FindStarts(ring, config).at(PipelineCollectType::VideoCamera0));
    ASSERT_TRUE(collector.IThread::Start());
    m_stalled = true;
    ASSERT_TRUE(WaitUntil([&] { return collector.IsSilent(); }));
    std::this_thread::sleep_for(milliseconds(300));
    EXPECT_TRUE(collector.IsRunning());
    m_stalled = false;
    if (comesBack) {
      ASSERT_TRUE(WaitUntil([&] { return !collector.IsRunning(); }));
      EXPECT_GE(collector.GetWindow().toSeconds, 7.0 - 0.02);
      EXPECT_GE(collector.GetWindow().longestGapSeconds, 5.0);
      EXPECT_LT(collector.GetWindow().longestGapSeconds, 20.0);
    } else {
      m_stalled = true;
      collector.EndInSilence();
      ASSERT_TRUE(WaitUntil([&] { return !collector.IsRunning(); }));
      EXPECT_TRUE(collector.IsCollected());
      EXPECT_LT(collector.GetWindow().toSeconds, 30.0);
    }
  }
}

TEST_F(WindowTest, OneThatWaitsIsHeldWhateverTheRingOverwrites) {
  const auto ring = std::make_shared<TestRing>(3 * Fps, Fps);
  StartFeeding(ring, Fps);
  std::this_thread::sleep_for(milliseconds(2500));
  auto config = MakeConfig(Clock::now());
  HeldWindow held({{PipelineCollectType::VideoCamera0, ring}}, FindStarts(ring, config),
                  *config.care.moment + std::chrono::seconds(2));
  EXPECT_EQ(held.GetBytesBeyondRings(), 0U);
  for (int i = 0; i < 8; ++i) {
    std::this_thread::sleep_for(milliseconds(700));
    held.Follow();
  }
  EXPECT_GT(held.GetBytesBeyondRings(), 100U);
  m_stalled = true;  // nothing new is needed
  CameraCollect collector(ring.get());
  collector.Init(config);
  auto stream = held.Take(PipelineCollectType::VideoCamera0, ring);
  collector.SetHeld(std::move(stream->reader), stream->fps);
  ASSERT_TRUE(collector.IThread::Start());
  const auto started = Clock::now();
  ASSERT_TRUE(WaitUntil([&] { return !collector.IsRunning(); }));
  EXPECT_LT(Clock::now() - started, milliseconds(4000)) << "the window has long ended";
  EXPECT_LE(collector.GetWindow().fromSeconds, -1.0);
  EXPECT_GE(collector.GetWindow().toSeconds, 0.98);
  EXPECT_LT(collector.GetWindow().toSeconds, 3.0);
  EXPECT_EQ(collector.GetWindow().lost, 0U);
}

// Catches a start that was overwritten before it was read and is taken for the frame that stands there a lap later.
TEST_F(WindowTest, AStartThatWasOverwrittenIsCountedAsLost) {
  TestRing ring(20, Fps);
  for (int i = 0; i < 20; ++i) Tavi::Testing::AddMedia(ring, 0, i % 5 == 0);
  RingReader reader(RingStart{5, 5, false});
  for (int i = 20; i < 32; ++i) Tavi::Testing::AddMedia(ring, 0, i % 5 == 0);
  reader.Follow(ring, 31);
  EXPECT_EQ(reader.Next()->frameId, 15U);
  EXPECT_EQ(reader.GetLost(), 10U);
}

TEST(EntryTimesTest, ReadsBackWhatWasWrittenAndNothingOfACutLine) {
  const std::string text = FormatTimesHeader(38.3, true) + FormatEntryTime({-15000000000, 77}) +
                           FormatEntryTime({-14900000000, 90000077, "0.9 8"}) + FormatEntryTime({-14850000000, {}});
  const auto times = ParseTimes(text);
  ASSERT_TRUE(times);
  EXPECT_NEAR(times->rate, 38.3, 1e-6);
  ASSERT_EQ(times->entries.size(), 3U);
  EXPECT_EQ(times->entries[1].timestampNs, 90000077U);
  EXPECT_EQ(times->entries[1].note, "0.9 8");
  // The second entry took 90 ms from the first one's time stamp and 100 ms to arrive: it was 10 ms on its way.
  const auto seconds = times->GetSeconds();
  EXPECT_NEAR(seconds[0], -15.0, 1e-9);
  EXPECT_NEAR(seconds[1], -14.91, 1e-9);
  EXPECT_NEAR(seconds[2], -14.85, 1e-9);
  EXPECT_EQ(ParseTimes(text.substr(0, text.size() - 1))->entries.size(), 2U);
  EXPECT_EQ(ParseTimes("times 1 10 counted\n5 6\nx 7\n8 9\n")->entries.size(), 1U);
  for (const char* wrong : {"", "times 1 \n", "times 1 x captured\n", "{}\n"}) EXPECT_FALSE(ParseTimes(wrong));
}

}  // namespace
