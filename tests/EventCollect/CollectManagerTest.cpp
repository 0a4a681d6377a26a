// The collect manager on rings that the test fills itself: requests, cancels, limits, and a vanishing acquisition.
#include <sys/mount.h>

#include "EventCollect/ManagerFixture.h"
#include "Tavi/EventCollect/WorkRoom.h"
#include "Tavi/Video/VideoPipelineCollect.h"

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
    // Which window it is: two seconds back, and up to one more to a key frame.
    const auto& window = m_output.windows.at(type);
    EXPECT_LE(window.fromSeconds, -1.9);
    EXPECT_GE(window.fromSeconds, -3.2);
    EXPECT_NEAR(window.toSeconds - window.fromSeconds, 3.0, 0.05);
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
    ASSERT_EQ(collect.wait_for(std::chrono::minutes(1)), std::future_status::ready);
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

// Catches a cancel that comes when its event has just ended, and takes the next one's files instead.
TEST_F(CollectManagerTest, ACancelNeverReachesTheNextEvent) {
  StartFeeding(5);
  PipelineCollectManager manager(m_managerConfig);
  m_input.durationSeconds = 0;
  for (int i = 0; i < 20; ++i) {
    std::atomic<bool> ended{false};
    auto cancel = std::async(std::launch::async, [&] {
      while (!ended) manager.CancelCollect(false);
      manager.CancelCollect(true);
    });
    manager.Collect(m_input, m_output);
    ended = true;
    cancel.get();
    PipelineCollectOutput next;
    ASSERT_TRUE(manager.Collect(m_input, next));
    ASSERT_EQ(next.outputs.size(), 2U) << i;
  }
}

TEST_F(CollectManagerTest, TheLimitAbortsAndReportsWhatWasWritten) {
  StartFeeding(5);
  JumpingClock clock;
  auto config = m_managerConfig;
  config.clock = &clock;
  for (const int limit : {120, 180}) {
    config.cr = limit == 180;
    PipelineCollectManager manager(config);
    m_input.durationSeconds = 100;
    m_output = {};
    auto collect = CollectInBackground(manager);
    EXPECT_EQ(CountThreads(config.cr ? "COLLECT-CAM0-CR" : "COLLECT-CAM0"), 1);
    clock.Jump(std::chrono::seconds(limit - 15));
    EXPECT_EQ(collect.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    clock.Jump(std::chrono::seconds(15));
    ASSERT_EQ(collect.wait_for(std::chrono::minutes(1)), std::future_status::ready);
    EXPECT_EQ(CountLogged("the collect has not ended within " + std::to_string(limit) + " s and is aborted"), 1);
    EXPECT_FALSE(manager.Running());
    EXPECT_EQ(m_output.outputs.size(), 2U);
  }
}

TEST_F(CollectManagerTest, RunSigIntEndsACollectWithWhatTheRingsHadAndLaterOnesAreRefused) {
  StartFeeding(5);
  PipelineCollectManager manager(m_managerConfig);
  m_input.startSeconds = -4;
  m_input.durationSeconds = 60;
  m_pipeline->Start();
  auto collect = CollectInBackground(manager);
  m_pipeline->RunSigInt();
  ASSERT_EQ(collect.wait_for(std::chrono::minutes(1)), std::future_status::ready);
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

// Both intact videos deleted, and success reported, because the disk had no room for a second copy or the sound was
// broken.
TEST_F(CollectManagerTest, AStreamThatCannotBeMuxedIsKeptWhereThatIsAskedFor) {
  StartFeeding(3);
  m_input.durationSeconds = 1;
  m_input.care.keepTimes = true;
  // Longer than the muxer takes.
  m_input.outputDir = m_dir + std::string(200, 'd') + "/" + std::string(60, 'e');
  for (const bool isKept : {false, true}) {
    m_managerConfig.keepStreams = isKept;
    PipelineCollectManager manager(m_managerConfig);
    PipelineCollectOutput output;
    EXPECT_TRUE(manager.Collect(m_input, output));
    EXPECT_EQ(output.outputs.contains(PipelineCollectType::VideoCamera0), isKept);
    EXPECT_EQ(output.outputs.contains(PipelineCollectType::VideoCamera1), isKept);
    if (!isKept) continue;
    const std::string path = output.GetOutputPath(PipelineCollectType::VideoCamera0);
    EXPECT_TRUE(path.ends_with(".h264"));
    EXPECT_GE(DecodeVideo(path).frames.size(), 30U);
    EXPECT_TRUE(CollectBase::IsPathAvailable(path + ".times"));
  }
  m_input.outputDir = m_dir;
  PipelineCollectManager manager(m_managerConfig);
  manager.Init(m_input);
  manager.Start();
  EXPECT_TRUE(WaitUntil([&] { return !manager.Running(); }));
  Tavi::Simulator::WriteBytes(m_dir + "broken.mp3", std::vector<std::uint8_t>(1000, 'x'));
  auto* camera =
      dynamic_cast<Tavi::Video::VideoPipelineCollect*>(manager.GetCollectElement(PipelineCollectType::VideoCamera0));
  ASSERT_TRUE(camera != nullptr && camera->IsCollected());
  camera->Mux(m_dir + "broken.mp3", 0, true);
  EXPECT_TRUE(camera->IsCollected() && camera->GetPath().ends_with(".mp4")) << GetLog();
}

// An event that cannot become whole, and nobody is told.
TEST_F(CollectManagerTest, ADiskThatIsTooSmallIsSaidBeforehand) {
  const auto needed = EstimateWorkBytes(PipelineConfig(), 30, true);
  EXPECT_GT(needed, 29'000'000U) << "31 s of 4.5 Mbit/s, and the larger stream once more";
  EXPECT_LT(needed, 40'000'000U);
  std::filesystem::create_directory(m_input.outputDir);
  if (mount("tmpfs", m_input.outputDir.c_str(), "tmpfs", 0, "size=1m") != 0) GTEST_SKIP() << "nothing can be mounted";
  StartFeeding(3);
  m_input.durationSeconds = 1;
  PipelineCollectManager manager(m_managerConfig);
  EXPECT_TRUE(manager.Collect(m_input, m_output));
  EXPECT_EQ(CountLogged("it may not be whole"), 1) << GetLog();
  umount((m_dir + "event").c_str());
}

}  // namespace
