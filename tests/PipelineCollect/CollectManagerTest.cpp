// The collect manager on rings that the test fills itself: requests, cancels, limits, and a vanishing acquisition.
#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "Pipeline/PipelineManager.h"
#include "PipelineCollect/PipelineCollectManager.h"
#include "Simulator/EncodedMaterial.h"
#include "Support/Media.h"
#include "Support/VideoDecode.h"
#include "Video/VideoPipelineElement.h"

namespace {

using namespace Tavi::PipelineCollect;
using Tavi::Pipeline::PipelineConfig;
using Tavi::Pipeline::PipelineManager;
using Tavi::Pipeline::PipelineType;
using Tavi::Testing::WaitUntil;
using Tavi::Video::VideoPipelineElement;

constexpr int Fps0 = 15;
constexpr int Fps1 = 30;

/// A clock that the test sets forward, so that two minutes are over when it says so.
class JumpingClock final : public Kbase::Util::IClock {
 public:
  Milliseconds Now() override { return Steady().Now() + Milliseconds(m_ahead.load()); }
  void Sleep(Milliseconds duration) override { Steady().Sleep(duration); }
  void Jump(Milliseconds duration) { m_ahead += duration.count(); }

 private:
  std::atomic<std::int64_t> m_ahead{0};
};

PipelineConfig CamerasOnly() {
  PipelineConfig config;
  config.audioEnabled = config.gpsEnabled = config.accEnabled = config.otherEnabled = false;
  config.camera0.previewEnabled = config.camera1.previewEnabled = false;
  config.camera0.fps = Fps0;
  config.camera1.fps = Fps1;
  return config;
}

class CollectManagerTest : public Tavi::Testing::MediaTest {
 protected:
  void SetUp() override {
    MediaTest::SetUp();
    m_pipeline = std::make_unique<PipelineManager>(CamerasOnly());
    m_managerConfig.pipelineManager = m_pipeline.get();
    m_managerConfig.workDir = m_dir;
    m_managerConfig.backupDir = m_dir + "backup/";
    m_input.outputDir = m_dir + "event";
    m_input.startSeconds = -2;
    m_input.durationSeconds = 3;
  }
  void TearDown() override {
    StopFeeding();
    MediaTest::TearDown();
  }

  /// Appends the next frame to both cameras' rings as if `frame` thirtieths of a second had passed.
  void FeedFrame(PipelineManager& pipeline) {
    const GstClockTime now = gst_util_uint64_scale(m_frame, GST_SECOND, Fps1);
    Feed(pipeline, PipelineType::Camera1, m_stream1, m_frame, now);
    if (m_frame % 2 == 0) Feed(pipeline, PipelineType::Camera0, m_stream0, m_frame / 2, now + 5 * GST_MSECOND);
    ++m_frame;
  }
  /// Seconds of material at once, then in real time on a thread of its own.
  void StartFeeding(int secondsBefore) {
    for (int i = 0; i < secondsBefore * Fps1; ++i) FeedFrame(*m_pipeline);
    m_feeding = true;
    m_feeder = std::thread([this] {
      while (m_feeding) {
        FeedFrame(*m_pipeline);
        std::this_thread::sleep_for(std::chrono::microseconds(1'000'000 / Fps1));
      }
    });
  }
  void StopFeeding() {
    m_feeding = false;
    if (m_feeder.joinable()) m_feeder.join();
  }

  /// A collect on a thread of its own that has been writing for a while.
  std::future<bool> CollectInBackground(PipelineCollectManager& manager) {
    auto collect = std::async(std::launch::async, [&] { return manager.Collect(m_input, m_output); });
    EXPECT_TRUE(WaitUntil([&] { return manager.Running(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    return collect;
  }

  std::unique_ptr<PipelineManager> m_pipeline;
  PipelineCollectManagerConfig m_managerConfig;
  PipelineCollectInput m_input;
  PipelineCollectOutput m_output;

 private:
  using Stream = std::vector<std::vector<std::uint8_t>>;

  static void Feed(PipelineManager& pipeline, PipelineType camera, const Stream& stream, std::uint64_t frame,
                   GstClockTime pts) {
    const auto element = std::dynamic_pointer_cast<VideoPipelineElement>(pipeline.ShareElement(camera));
    if (!element) return;
    const auto& unit = stream[frame % stream.size()];
    const std::string bytes(unit.begin(), unit.end());
    element->SetEncodedFrame(Tavi::Testing::MakeBuffer(bytes, pts, frame % stream.size() == 0));
  }

  const Stream m_stream0 = Tavi::Simulator::EncodeH264(320, 176, Fps0, Fps0, Fps0);
  const Stream m_stream1 = Tavi::Simulator::EncodeH264(320, 176, Fps1, Fps1, Fps1);
  std::uint64_t m_frame = 0;
  std::atomic<bool> m_feeding{false};
  std::thread m_feeder;
};

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
