// The collect manager on rings that the test fills itself: requests, cancels, limits, and a vanishing acquisition.
#include "EventCollect/ManagerFixture.h"

namespace {

using namespace Tavi::Testing;

TEST_F(CollectManagerTest, AWindowOfBothCamerasBecomesTwoMp4Files) {
  StartFeeding(40);  // more than the rings hold
  PipelineCollectManager manager(m_managerConfig);
  ASSERT_TRUE(manager.Collect(m_input, m_output));
  for (const auto& [type, fps] :
       {std::pair(PipelineCollectType::VideoCamera1, Fps0), {PipelineCollectType::VideoCamera0, Fps1}}) {
    const auto video = Tavi::Testing::DecodeVideo(m_output.GetOutputPath(type));
    ASSERT_EQ(video.frames.size(), 3U * fps + 1);
    EXPECT_TRUE(video.frames.front().key);
    EXPECT_EQ(video.decodeErrors, 0);
  }
  for (const char* line :
       {"Current frame camera 0: ", "Current frame camera 1: ", "Free space before: ", "Free space after: "}) {
    EXPECT_EQ(CountLogged(line), 1) << line;
  }
  for (const auto& file : std::filesystem::directory_iterator(m_dir + "event")) {
    EXPECT_EQ(file.path().extension(), ".mp4") << "nothing but the products is left";
  }
}

TEST_F(CollectManagerTest, ASecondCollectIsRefusedAndADiscardedOneLeavesNothing) {
  StartFeeding(5);
  PipelineCollectManager manager(m_managerConfig);
  m_input.durationSeconds = 1;
  m_input.discard = true;
  auto first = CollectInBackground(manager);
  PipelineCollectInput input = m_input;
  PipelineCollectOutput output;
  EXPECT_FALSE(manager.Collect(input, output));
  EXPECT_EQ(CountLogged("a collect is running already"), 1);
  EXPECT_TRUE(first.get());
  EXPECT_TRUE(m_output.outputs.empty());
  EXPECT_TRUE(std::filesystem::is_empty(m_dir + "event"));
}

TEST_F(CollectManagerTest, ACancelledCollectReportsWhatItHas) {
  StartFeeding(5);
  PipelineCollectManager manager(m_managerConfig);
  m_input.durationSeconds = 60;
  for (const bool abort : {false, true}) {
    m_output = {};
    auto collect = CollectInBackground(manager);
    manager.CancelCollect(abort);
    ASSERT_EQ(collect.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(m_output.outputs.size(), 2U) << abort;
    manager.CancelCollect(true);  // without a collect there is nothing to cancel
  }
}

TEST_F(CollectManagerTest, CancelAtAnyMomentEndsEveryThreadBeforeAnythingIsReset) {
  StartFeeding(5);
  PipelineCollectManager manager(m_managerConfig);
  m_input.durationSeconds = 60;
  for (int i = 0; i < 30; ++i) {
    auto collect = std::async(std::launch::async, [&] { return manager.Collect(m_input, m_output); });
    std::this_thread::sleep_for(std::chrono::microseconds(i * 50));
    while (collect.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready)
      manager.CancelCollect(i % 2 == 0);
    EXPECT_FALSE(manager.Running());
  }
}

TEST_F(CollectManagerTest, TheLimitAbortsAndReportsWhatWasWritten) {
  StartFeeding(5);
  JumpingClock clock;
  m_managerConfig.clock = &clock;
  PipelineCollectManager manager(m_managerConfig);
  m_input.durationSeconds = 100;
  auto collect = CollectInBackground(manager);
  clock.Jump(std::chrono::seconds(119));
  EXPECT_EQ(collect.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
  clock.Jump(std::chrono::seconds(1));
  ASSERT_EQ(collect.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  EXPECT_EQ(CountLogged("the collect has not ended within 120 s and is aborted"), 1);
  EXPECT_FALSE(manager.Running());
  EXPECT_EQ(m_output.outputs.size(), 2U);
}

TEST_F(CollectManagerTest, RunSigIntEndsACollectWithWhatTheRingsHadAndLaterOnesAreRefused) {
  StartFeeding(5);
  PipelineCollectManager manager(m_managerConfig);
  m_input.startSeconds = -4;
  m_input.durationSeconds = 60;
  m_pipeline->Start();
  auto collect = CollectInBackground(manager);
  m_pipeline->RunSigInt();
  ASSERT_EQ(collect.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_TRUE(collect.get());
  const auto video = Tavi::Testing::DecodeVideo(m_output.GetOutputPath(PipelineCollectType::VideoCamera0));
  EXPECT_GE(video.frames.size(), 4U * Fps1) << "the four seconds before the event were in the ring";
  EXPECT_EQ(video.decodeErrors, 0);
  PipelineCollectOutput later;
  EXPECT_FALSE(manager.Collect(m_input, later));

  // Acquisition that runs again is collected from again.
  m_pipeline->Init();
  for (const auto camera : {PipelineType::Camera0, PipelineType::Camera1}) {
    ASSERT_TRUE(WaitUntil([&] { return m_pipeline->GetPipelineElement(camera)->IsDataAvailable(); }));
  }
  m_input.durationSeconds = 1;
  EXPECT_TRUE(manager.Collect(m_input, later));
  EXPECT_EQ(later.outputs.size(), 2U);
}

TEST_F(CollectManagerTest, AnOutputDirectoryThatCannotBeMadeOrVanishesLosesOnlyItsFiles) {
  StartFeeding(5);
  PipelineCollectManager manager(m_managerConfig);
  m_input.durationSeconds = 1;
  m_input.outputDir = "/proc/none/event";
  EXPECT_FALSE(manager.Collect(m_input, m_output));
  EXPECT_EQ(CountLogged("cannot collect into /proc/none/event/"), 1);

  m_input.outputDir = m_dir + "event";
  const long descriptors = CountDescriptors();
  auto collect = CollectInBackground(manager);
  std::filesystem::remove_all(m_dir + "event");
  ASSERT_TRUE(collect.get());
  EXPECT_TRUE(m_output.outputs.empty());
  EXPECT_EQ(CountDescriptors(), descriptors);
  EXPECT_TRUE(manager.Collect(m_input, m_output)) << "the next event makes its directory again";
  EXPECT_EQ(m_output.outputs.size(), 2U);
}

}  // namespace
