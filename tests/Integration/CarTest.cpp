// One event of all six sources in the simulated car, looked at as a person would.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <future>
#include <nlohmann/json.hpp>

#include "Integration/Waiting.h"
#include "Simulator/SimulatedCar.h"
#include "Support/Media.h"
#include "Support/SoundDecode.h"
#include "Support/VideoDecode.h"
#include "Tavi/EventCollect/PipelineCollectManager.h"

namespace {

using namespace Tavi::Pipeline;
using namespace Tavi::PipelineCollect;
using namespace Tavi::Testing;

constexpr int Seconds = 6;

class CarTest : public MediaTest {
 protected:
  PipelineConfig Boarded() const {
    PipelineConfig config;
    config.camera0.device = "sim:camera1";
    config.camera1.device = "sim:camera0";
    config.camera1.width = 480;  // Previews and stills have their own size, whatever a camera's is.
    config.camera1.height = 270;
    config.gps.path = m_car.GetGpsPath();
    return config;
  }
  PipelineCollectOutput CollectOne(PipelineManager& manager, bool cr) const {
    PipelineCollectManagerConfig config;
    config.pipelineManager = &manager;
    config.workDir = m_dir;
    config.backupDir = m_dir + "backup/";
    config.cr = cr;
    PipelineCollectManager collect(config);
    PipelineCollectInput input{-4, Seconds, true, m_dir + "event", false};
    PipelineCollectOutput output;
    EXPECT_TRUE(collect.Collect(input, output));
    return output;
  }
  /// How far each time of `some` lies from the nearest of `others`, the edges of the clip left out: it may begin before
  /// its sound, at `from`, and a tick is known by a fifth of a second of quiet before it.
  static void ExpectTogether(const std::vector<double>& some, const std::vector<double>& others, double from) {
    int compared = 0;
    for (const double time : some) {
      if (time < from + 0.25 || time > Seconds - 0.2) continue;
      double nearest = 1.0;
      for (const double other : others) nearest = std::min(nearest, std::abs(time - other));
      EXPECT_LE(nearest, 0.05) << "at " << time;
      ++compared;
    }
    EXPECT_GE(compared, Seconds - 2);
  }
  static std::size_t CountSentences(const std::string& gps) {
    std::size_t count = 0;
    for (std::size_t pos = 0; pos + 4 <= gps.size(); ++count) {
      const auto length = static_cast<unsigned char>(gps[pos]);
      EXPECT_EQ(gps.compare(pos + 4, 7, "$GPRMC,"), 0);
      pos += 4U + length;
      EXPECT_LE(pos, gps.size());
    }
    return count;
  }

  /// The frames that both have are the same to the byte, without a gap.
  static void ExpectOneOverlap(const std::vector<std::string>& earlier, const std::vector<std::string>& later) {
    // Not by the first frame alone: where key frames fall on the flashes, all of them are the same white picture.
    ASSERT_GE(later.size(), 3U);
    const auto from = std::search(earlier.begin(), earlier.end(), later.begin(), later.begin() + 3);
    const auto common = std::distance(from, earlier.end());
    EXPECT_GE(common, 2 * 15);
    ASSERT_LE(common, std::ssize(later));
    for (std::ptrdiff_t i = 0; i < common; ++i) {
      const std::string& mine = *(from + i);
      const std::string& other = later[static_cast<std::size_t>(i)];
      if (mine == other) continue;
      ADD_FAILURE() << "common frame " << i << " of " << common << " has " << mine.size() << " and " << other.size()
                    << " bytes, the same up to "
                    << std::mismatch(mine.begin(), mine.end(), other.begin(), other.end()).first - mine.begin();
    }
  }

  const Tavi::Simulator::SimulatedCar m_car;
};

// Catches sound that is aligned to one camera only, or to none; windows of the wrong length; summaries of another
// event; previews and stills that do not play; managers that disturb each other.
TEST_F(CarTest, FlashAndTickFallTogetherInBothClipsAndEverySourceHasItsWindow) {
  ASSERT_EQ(m_car.GetProblem(), "");
  PipelineManager manager(Boarded());
  manager.RunIgnitionStart();
  ASSERT_TRUE(WaitForSeconds(
      manager, 6,
      {PipelineType::Camera0, PipelineType::Camera1, PipelineType::Audio, PipelineType::Gps, PipelineType::Acc,
       PipelineType::Other}));  // more than the window reaches back, a key frame's second included
  auto beside = std::async(std::launch::async, [&] {
    for (const char* thread : {"COLLECT-CAM0", "COLLECT-CAM1", "COLLECT-SOUND", "COLLECT-ACC", "COLLECT-OTHER",
                               "COLLECT-GPS", "COLLECT-PREVIEW"}) {
      EXPECT_TRUE(WaitUntil([thread] { return CountThreads(thread) == 1; })) << thread;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    return CollectOne(manager, true);
  });
  const auto output = CollectOne(manager, false);
  const auto second = beside.get();
  manager.RunIgnitionOff();
  manager.RunSigInt();

  for (const auto type : {PipelineCollectType::VideoCamera0, PipelineCollectType::VideoCamera1}) {
    SCOPED_TRACE(GetPipelineCollectTypeName(type));
    const auto video = DecodeVideo(output.GetOutputPath(type));
    EXPECT_EQ(video.decodeErrors, 0);
    const auto flashes = FindFlashes(video);
    ExpectOneOverlap(video.packets, DecodeVideo(second.GetOutputPath(type)).packets);
    const auto sound = DecodeSound(output.GetOutputPath(type));
    EXPECT_GE(sound.startSeconds, 0.0);
    EXPECT_NEAR(static_cast<double>(sound.samples.size()) / sound.sampleRate, Seconds, 0.6);
    ExpectTogether(flashes, FindTicks(sound), sound.startSeconds);
    ExpectTogether(FindTicks(sound), flashes, sound.startSeconds);
  }
  const auto read = [](const PipelineCollectOutput& event, PipelineCollectType type) {
    return ReadFile(event.GetOutputPath(type));
  };
  EXPECT_EQ(CountSentences(read(output, PipelineCollectType::Gps)), Seconds) << "a second less than the rest";
  EXPECT_EQ(nlohmann::json::parse(read(output, PipelineCollectType::Other)).size(), Seconds);
  EXPECT_EQ(read(output, PipelineCollectType::Acc).size(), (Seconds * 10 + 1) * 34U);
  EXPECT_EQ(read(second, PipelineCollectType::Acc).size(), ((Seconds - 3) * 10 + 1) * 34U);
  EXPECT_EQ(CountSentences(read(second, PipelineCollectType::Gps)), Seconds);
  EXPECT_EQ(output.windows.size(), 6U);
  for (const auto& [type, window] : output.windows) {
    SCOPED_TRACE(GetPipelineCollectTypeName(type));
    EXPECT_TRUE(window.fromSeconds > -5.2 && window.fromSeconds < -2.8) << window.fromSeconds;
    EXPECT_NEAR(static_cast<double>(window.entries - 1) / window.fps, window.toSeconds - window.fromSeconds, 1.5);
  }
  const auto preview = DecodeVideo(output.GetOutputPath(PipelineCollectType::Preview));
  EXPECT_EQ(std::tuple(preview.width, preview.height, preview.frames.size()), std::tuple(640, 176, 18U));
  EXPECT_NEAR(preview.audioSeconds, 6.0, 0.2);
  EXPECT_EQ(output.previewSeconds, 6);
  EXPECT_EQ(DecodeVideo(output.previewStill).width, 640);
  for (const auto type : {PipelineCollectType::ThumbnailCamera0, PipelineCollectType::ThumbnailCamera1}) {
    for (const auto& event : {output, second}) EXPECT_EQ(DecodeVideo(event.GetOutputPath(type)).height, 160);
  }
  EXPECT_EQ(second.GetOutputPath(PipelineCollectType::Preview) + second.previewStill, "") << "the second makes none";
  EXPECT_GT(output.maxSpeed, 1.0);
  EXPECT_LT(output.maxSpeed, 70.0);
  EXPECT_GT(output.maxG, 0.05);
  EXPECT_LT(output.maxG, 1.5);
}

}  // namespace
