// From two running cameras to two MP4 files, looked at as a person would: decoded, frame by frame.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "Integration/Waiting.h"
#include "Support/Media.h"
#include "Support/VideoDecode.h"
#include "Tavi/EventCollect/PipelineCollectManager.h"

namespace {

using namespace Tavi::Pipeline;
using namespace Tavi::PipelineCollect;
using Tavi::Testing::DecodedVideo;

class EventTest : public Tavi::Testing::MediaTest {
 protected:
  static PipelineConfig Simulated() {
    PipelineConfig config;
    config.audioEnabled = config.gpsEnabled = config.accEnabled = config.otherEnabled = false;
    config.camera0.device = "sim:camera1";
    config.camera1.device = "sim:camera0";
    config.camera0.width = 640;
    config.camera0.height = 480;
    return config;
  }
  PipelineCollectManagerConfig CollectConfig(PipelineManager& manager) const {
    PipelineCollectManagerConfig config;
    config.pipelineManager = &manager;
    config.workDir = m_dir;
    config.backupDir = m_dir + "backup/";
    return config;
  }
  static void ExpectPlayable(const DecodedVideo& video, int fps, int seconds, std::pair<int, int> size) {
    ASSERT_TRUE(video.opened);
    EXPECT_EQ(video.frames.size(), static_cast<std::size_t>(fps * seconds + 1));
    EXPECT_EQ(std::pair(video.rateNumerator, video.rateDenominator), std::pair(fps, 1));
    EXPECT_NEAR(video.durationSeconds, seconds + 1.0 / fps, 1e-9);
    EXPECT_EQ(video.frames.front().seconds, 0.0);
    for (std::size_t i = 0; i < video.frames.size(); ++i) {
      EXPECT_EQ(video.frames[i].key, i % static_cast<std::size_t>(fps) == 0) << i;
    }
    EXPECT_EQ(video.decodeErrors, 0);
    EXPECT_EQ(std::pair(video.width, video.height), size);
    EXPECT_TRUE(video.indexFirst);
    EXPECT_EQ(video.codecTag, "avc1");
  }
};

TEST_F(EventTest, TwoCamerasBecomeTwoClipsThatPlayAndAgreeInTime) {
  PipelineManager manager(Simulated());
  auto config = CollectConfig(manager);
  PipelineCollectManager collect(config);
  manager.RunIgnitionStart();
  ASSERT_TRUE(Tavi::Testing::WaitForSeconds(manager, 4, {PipelineType::Camera0, PipelineType::Camera1}));
  PipelineCollectInput input{-3, 5, false, m_dir + "event", false};
  PipelineCollectOutput output;
  ASSERT_TRUE(collect.Collect(input, output));
  manager.RunIgnitionOff();
  manager.RunSigInt();

  const auto camera0 = Tavi::Testing::DecodeVideo(output.GetOutputPath(PipelineCollectType::VideoCamera0));
  const auto camera1 = Tavi::Testing::DecodeVideo(output.GetOutputPath(PipelineCollectType::VideoCamera1));
  ExpectPlayable(camera0, 30, 5, {1280, 720});
  ExpectPlayable(camera1, 15, 5, {640, 480});
  const auto flashes0 = Tavi::Testing::FindFlashes(camera0);
  const auto flashes1 = Tavi::Testing::FindFlashes(camera1);
  int compared = 0;
  for (const double time : flashes0) {
    if (time < 0.1 || time > 4.9) continue;  // at an edge one clip may show what the other has just missed
    double nearest = 1.0;
    for (const double other : flashes1) nearest = std::min(nearest, std::abs(time - other));
    EXPECT_LE(nearest, 1.0 / 15 + 0.005) << "a flash shows in the first frame after the full second";
    ++compared;
  }
  EXPECT_GE(compared, 4);
}

TEST_F(EventTest, ACameraThatIsMissingLeavesNoClipAndNoScene) {
  auto config = Simulated();
  config.camera0Enabled = false;
  config.camera1.device = "/dev/none";
  PipelineManager manager(config);
  auto collectConfig = CollectConfig(manager);
  PipelineCollectManager collect(collectConfig);
  Tavi::Testing::CapturedOutput printed;
  manager.Start();
  EXPECT_TRUE(printed.WaitFor("/dev/none"));
  PipelineCollectInput input{-3, 1, false, m_dir + "event", false};
  PipelineCollectOutput output;
  EXPECT_TRUE(collect.Collect(input, output));
  EXPECT_TRUE(output.outputs.empty());
  manager.RunSigInt();
}

}  // namespace
