// Power that fails: what is saved, whether anything hangs, and what is possible afterwards.

#include <sys/mount.h>

#include <algorithm>

#include "EventCollect/ManagerFixture.h"

namespace {

using namespace Tavi::Testing;

class PowerFailureTest : public CollectManagerTest {
 protected:
  /// Names in the backup directory.
  std::set<std::string> Saved() const {
    std::set<std::string> names;
    for (const auto& file : std::filesystem::directory_iterator(m_managerConfig.backupDir)) {
      names.insert(file.path().filename());
    }
    return names;
  }
};

// Catches a backup that ends where the disk was, not where the power went, and elements read after they were deleted.
TEST_F(PowerFailureTest, EveryStreamIsSavedUpToTheMomentOfTheFailure) {
  StartFeeding(6);
  PipelineCollectManager manager(m_managerConfig);
  m_pipeline->Start();
  m_input.startSeconds = -4;
  m_input.durationSeconds = 30;
  manager.PowerFailure();  // without an event there is nothing to save
  auto collect = CollectInBackground(manager);
  manager.PowerFailure();
  manager.PowerFailure();
  ASSERT_EQ(collect.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  EXPECT_TRUE(collect.get());
  EXPECT_TRUE(m_output.outputs.empty());
  EXPECT_EQ(CountLogged("[Power Failure]Backup finished"), 1);
  const auto saved = Saved();
  ASSERT_EQ(saved.size(), 2U);
  const std::string first = *saved.begin();
  const std::string second = *saved.rbegin();
  EXPECT_EQ(first.substr(0, 13), "video0_event_");
  EXPECT_EQ(second.substr(0, 13), "video1_event_");
  EXPECT_EQ(first.substr(7), second.substr(7)) << "one event, one name";
  for (const auto& [name, fps] : {std::pair(first, Fps1), {second, Fps0}}) {
    const auto video = DecodeVideo(m_managerConfig.backupDir + name);
    EXPECT_GE(video.frames.size(), 4.05 * fps) << "the four seconds before the event and what came since";
    EXPECT_EQ(video.decodeErrors, 0);
  }
  PipelineCollectOutput later;
  EXPECT_FALSE(manager.Collect(m_input, later)) << "until acquisition runs again";
}

// Catches a backup that waits for a driver.
TEST_F(PowerFailureTest, ADriverThatHangsInItsStopHoldsUpNothing) {
  class Hanging final : public PipelineManager {
   public:
    using PipelineManager::PipelineManager;
    void RunSigInt() override {
      WaitUntil([this] { return goesOn.load(); });
      PipelineManager::RunSigInt();
    }
    std::atomic<bool> goesOn{false};
  };
  auto hanging = std::make_unique<Hanging>(CamerasOnly());
  auto& goesOn = hanging->goesOn;
  m_pipeline = std::move(hanging);
  m_managerConfig.pipelineManager = m_pipeline.get();
  StartFeeding(6);
  PipelineCollectManager manager(m_managerConfig);
  m_pipeline->Start();
  m_input.durationSeconds = 30;
  auto collect = CollectInBackground(manager);
  manager.PowerFailure();
  EXPECT_EQ(collect.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  EXPECT_EQ(Saved().size(), 2U) << GetLog();
  EXPECT_EQ(CountLogged("acquisition is not stopped yet"), 1);
  EXPECT_NE(m_pipeline->ShareElement(PipelineType::Camera0), nullptr);
  goesOn = true;
  EXPECT_TRUE(WaitUntil([&] { return m_pipeline->ShareElement(PipelineType::Camera0) == nullptr; }));
}

// Catches an event that is lost, or there twice, because power failed while it was muxed: behind its caller or by him.
TEST_F(PowerFailureTest, AnEventThatIsBeingMuxedIsSavedAsClips) {
  class Slow final : public CollectAsyncCallbackInterface {
   public:
    void CollectFinished(PipelineCollectOutput&, bool, void*) override { called = true; }
    std::atomic<bool> called{false};
  } told;
  StartFeeding(30);
  m_input.startSeconds = -20;
  m_input.durationSeconds = 20;
  m_input.care.pace = 32;  // what lies behind at once
  m_input.name = "0a1b2c3d";
  for (const bool behind : {true, false}) {
    const auto isMuxing = [&] {
      if (behind) return CountThreads("MUX-EVT") > 0;
      using Dir = std::filesystem::directory_iterator;
      return std::any_of(Dir(m_dir + "event"), Dir(),
                         [](const auto& file) { return file.path().string().find(".mp4") != std::string::npos; });
    };
    std::filesystem::remove_all(m_managerConfig.backupDir);
    // The failure comes at some instant of the mux, unless that was the faster one.
    for (int tries = 0; tries < 20 && (tries == 0 || Saved().empty()); ++tries) {
      PipelineCollectManager manager(m_managerConfig);
      std::filesystem::remove_all(m_dir + "event");
      std::filesystem::create_directory(m_dir + "event");
      told.called = false;
      std::thread failing([&] {
        while (!told.called && !isMuxing()) std::this_thread::yield();
        if (!told.called) manager.PowerFailure();
      });
      EXPECT_TRUE(behind ? manager.CollectAsync(m_input, &told, nullptr) : manager.Collect(m_input, m_output = {}));
      if (!behind) told.called = true;
      EXPECT_TRUE(WaitUntil([&] { return told.called.load(); }));
      failing.join();
    }
    const auto saved = Saved();
    ASSERT_EQ(saved.size(), 2U) << GetLog();
    for (const auto& name : saved) {
      EXPECT_EQ(std::filesystem::path(name).extension(), ".mp4");
      EXPECT_NE(name.find("_0a1b2c3d_"), std::string::npos) << name;
      EXPECT_GE(DecodeVideo(m_managerConfig.backupDir + name).frames.size(), 20U * Fps0);
    }
    EXPECT_EQ(std::filesystem::is_empty(m_dir + "event"), !behind) << "should the machine outlive it";
  }
}

// Catches a stream that leaves nothing to the others, and the beginning of one that is thrown away.
TEST_F(PowerFailureTest, WhereNotAllFitsTheSmallFilesComeFirstAndTheRestIsKeptAsFarAsItFits) {
  std::filesystem::create_directory(m_managerConfig.backupDir);
  StartFeeding(6);
  PipelineCollectManager manager(m_managerConfig);
  m_input.startSeconds = -5;
  m_input.durationSeconds = 30;
  // One stream has some 270 kB, the other twice that.
  if (mount("tmpfs", m_managerConfig.backupDir.c_str(), "tmpfs", 0, "size=400k") != 0) {
    GTEST_SKIP() << "nothing can be mounted";
  }
  auto collect = CollectInBackground(manager);
  manager.PowerFailure();
  EXPECT_TRUE(collect.get());
  const auto saved = Saved();
  umount(m_managerConfig.backupDir.c_str());
  ASSERT_EQ(saved.size(), 2U) << GetLog();
  EXPECT_TRUE(saved.begin()->starts_with("video0_") && saved.begin()->ends_with(".part")) << *saved.begin();
  EXPECT_TRUE(saved.rbegin()->starts_with("video1_") && saved.rbegin()->ends_with(".h264")) << *saved.rbegin();
  EXPECT_EQ(CountLogged("there is no room for the whole event"), 1);
}

TEST_F(PowerFailureTest, ABackupThatCannotBeMadeIsSaidAndHoldsNobody) {
  m_managerConfig.backupDir = "/proc/none/";
  StartFeeding(5);
  PipelineCollectManager manager(m_managerConfig);
  auto collect = CollectInBackground(manager);
  manager.PowerFailure();
  ASSERT_EQ(collect.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  EXPECT_EQ(CountLogged("cannot save the event into /proc/none/"), 1);
}

}  // namespace
