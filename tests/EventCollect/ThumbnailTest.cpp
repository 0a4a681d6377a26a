// Stills of a real camera branch: before it delivers, while it does, and when it has fallen silent.
#include "Support/Media.h"
#include "Support/VideoDecode.h"
#include "Tavi/EventCollect/HeldWindow.h"
#include "Tavi/EventCollect/PipelineCollectManager.h"
#include "Tavi/EventCollect/ThumbnailCollect.h"
#include "Tavi/Pipeline/PipelineManager.h"

namespace {

using namespace Tavi::PipelineCollect;
using namespace Tavi::Testing;

// Catches a wait that only a frame ends: it would hold the event to its time limit and outlive it.
TEST_F(MediaTest, AStillShowsTheSceneAndACameraWithoutFramesHoldsNothingUp) {
  Tavi::Pipeline::PipelineConfig config;
  config.camera0Enabled = config.audioEnabled = false;
  config.camera1.device = "sim:camera0";
  Tavi::Pipeline::PipelineManager manager(config);
  const auto camera = manager.ShareElement(Tavi::Pipeline::PipelineType::Camera1);
  ThumbnailCollect first(camera.get(), CameraType::Camera1, false);
  ThumbnailCollect second(camera.get(), CameraType::Camera1, true);
  PipelineCollectConfig window{0, 0, m_dir};
  const auto begin = [&](ThumbnailCollect& collect) { return collect.Init(window), collect.Start(); };
  const auto end = [&] { return WaitUntil([&] { return !first.IsRunning() && CountThreads("COLLECT-THUMB0") == 0; }); };

  manager.GstPipelineManager::Start();  // the camera's own gate is closed: no frame comes
  EXPECT_TRUE(begin(first));
  ASSERT_TRUE(WaitUntil([] { return CountThreads("COLLECT-THUMB0") == 1; }));
  EXPECT_TRUE(begin(second));  // waits for its turn behind the first
  ASSERT_TRUE(WaitUntil([] { return CountThreads("COLLECT-THUMB0-") == 1; }));
  EXPECT_TRUE(second.Abort(std::chrono::seconds(4)) && end());
  EXPECT_EQ(CountLogged("its camera delivers no frame"), 1) << "who aborts knows: " << GetLog();
  EXPECT_TRUE(std::filesystem::is_empty(m_dir));

  camera->Start();
  EXPECT_TRUE(WaitUntil([&] {
    EXPECT_TRUE(begin(first) && end() && first.IsCollected());
    const auto still = DecodeVideo(first.GetPath());
    return still.width == 280 && still.height == 160 && std::filesystem::file_size(first.GetPath()) > 4000;
  })) << "a scene within a flash's length, not a blank picture, which is far smaller";

  ASSERT_TRUE(WaitUntil([&, seen = camera->GetCurrentFrameId()] { return camera->GetCurrentFrameId() - seen > 5; }));
  // An event that waits for the second manager: the moment's picture is kept until its turn has come.
  PipelineCollectManagerConfig waiting;
  waiting.pipelineManager = &manager;
  waiting.workDir = m_dir;
  waiting.backupDir = m_dir + "backup/";
  waiting.cr = true;
  PipelineCollectManager later(waiting);
  PipelineCollectInput input{-1, 1, false, m_dir + "event", false};
  input.held = later.Hold(input);
  ASSERT_NE(input.held, nullptr);
  input.held->HoldStills();
  camera->Stop();
  const auto last = std::dynamic_pointer_cast<Tavi::GstUtil::GstPipelineCbElement>(camera->RetrieveCurrent());
  ASSERT_TRUE(WaitUntil([&] { return last->GetAge() > PipelineCollect::SilenceLimit + std::chrono::seconds(1); }));
  EXPECT_TRUE(begin(first) && end() && !first.IsCollected()) << "the frame at hand is from before the silence";
  PipelineCollectOutput output;
  EXPECT_TRUE(later.Collect(input, output));
  const auto still = DecodeVideo(output.GetOutputPath(PipelineCollectType::ThumbnailCamera0));
  EXPECT_EQ(still.width, 280) << "nothing newer comes: it is the moment's";
}

}  // namespace
