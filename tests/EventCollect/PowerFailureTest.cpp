// Power that fails: what is saved, whether anything hangs, and what is possible afterwards.

#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <mutex>

#include "EventCollect/ManagerFixture.h"

namespace {

using namespace Tavi::Testing;

/// What a disk would still have of the files that were synced: copies of them at that instant.
class SyncedFiles {
 public:
  static SyncedFiles& Get() {
    static SyncedFiles files;
    return files;
  }
  /// Kept in `dir`, which exists; empty: not at all.
  void KeepIn(const std::string& dir) {
    const std::lock_guard lock(m_mutex);
    m_dir = dir;
  }
  void Keep(int file) {
    const std::lock_guard lock(m_mutex);
    if (m_dir.empty()) return;
    std::error_code error;
    const auto path = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file), error);
    const auto kept = std::filesystem::path(m_dir) / path.filename();
    // Whoever reads it meanwhile reads the one before.
    std::filesystem::copy_file(path, kept.string() + ".new", std::filesystem::copy_options::overwrite_existing, error);
    if (!error) std::filesystem::rename(kept.string() + ".new", kept, error);
  }

 private:
  std::mutex m_mutex;
  std::string m_dir;
};

}  // namespace

// The libraries call this one in place of the C library's.
extern "C" int fdatasync(int file) {
  SyncedFiles::Get().Keep(file);
  return static_cast<int>(syscall(SYS_fdatasync, file));
}

namespace {

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

/// Events as the recorder asks for them, copied ahead.
class CopyAheadTest : public PowerFailureTest {
 protected:
  void SetUp() override {
    PowerFailureTest::SetUp();
    m_managerConfig.copyAheadMBps = 100.0;
    m_input.name = "0a1b2c3d";
    m_input.care.pace = 32;
    m_input.care.keepTimes = true;
    m_input.startSeconds = -4;
    m_input.durationSeconds = 30;
  }
  /// By the names that they are going to have, once there are copies of both streams and their companions.
  std::map<std::string, ino_t> AwaitCopies() const {
    std::map<std::string, ino_t> copies;
    const auto isBegun = [&] {
      copies.clear();
      for (const auto& name : Saved()) {
        struct stat status {};
        const std::filesystem::path path(m_managerConfig.backupDir + name);
        if (stat(path.c_str(), &status) == 0 && path.extension() == ".part") copies[path.stem()] = status.st_ino;
      }
      return copies.size() == 4;
    };
    EXPECT_TRUE(WaitUntil(isBegun));
    return copies;
  }
  void ExpectSaved(const std::string& name, double leastSeconds) const {
    if (name.ends_with(".times")) return;
    const auto video = DecodeVideo(m_managerConfig.backupDir + name);
    EXPECT_GE(video.frames.size(), leastSeconds * (name.starts_with("video0_") ? Fps1 : Fps0)) << name;
    EXPECT_EQ(video.decodeErrors, 0) << name;
  }
};

// Catches an event that is written a second time when power fails, a rest that is lost, and one name for two events.
TEST_F(CopyAheadTest, OnlyTheRestIsWrittenWhenPowerFails) {
  StartFeeding(6);
  PipelineCollectManager manager(m_managerConfig);
  auto collect = CollectInBackground(manager);
  const auto copies = AwaitCopies();
  manager.PowerFailure();
  EXPECT_TRUE(collect.get());
  std::set<std::string> events;
  const auto saved = Saved();
  EXPECT_EQ(saved.size(), 4U);
  for (const auto& name : saved) {
    struct stat status {};
    ASSERT_EQ(stat((m_managerConfig.backupDir + name).c_str(), &status), 0);
    ASSERT_TRUE(copies.contains(name)) << name;
    EXPECT_EQ(copies.at(name), status.st_ino) << name << " was copied anew";
    ExpectSaved(name, 4.3);
    events.insert(name.substr(7, name.find('.') - 7));
  }
  EXPECT_EQ(events.size(), 1U);
  EXPECT_TRUE(std::filesystem::is_empty(m_input.outputDir)) << "the event is there twice";
}

// Catches copies that no disk has yet when power goes without a warning, soon after the request.
TEST_F(CopyAheadTest, WhatTheRingsHeldAtTheRequestIsSyncedWithinTwoSeconds) {
  const std::string synced = m_dir + "synced/";
  std::filesystem::create_directory(synced);
  StartFeeding(6);
  PipelineCollectManager manager(m_managerConfig);
  SyncedFiles::Get().KeepIn(synced);
  const auto requested = std::chrono::steady_clock::now();
  auto collect = CollectInBackground(manager);
  const auto isThere = [&] {
    int streams = 0;
    for (const auto& file : std::filesystem::directory_iterator(synced)) {
      const std::string name = file.path().filename();
      if (!name.ends_with(".h264.part")) continue;
      const std::size_t fps = name.starts_with("video0_") ? Fps1 : Fps0;
      streams += DecodeVideo(file.path()).frames.size() >= 4 * fps ? 1 : 0;
    }
    return streams == 2;
  };
  EXPECT_TRUE(WaitUntil(isThere));
  EXPECT_LT(std::chrono::steady_clock::now() - requested, std::chrono::milliseconds(1900));
  SyncedFiles::Get().KeepIn({});
  manager.PowerFailure();
  EXPECT_TRUE(collect.get());
}

// Catches copies that are removed before the event is anywhere else, and such as stay behind.
TEST_F(CopyAheadTest, TheCopiesStayWholeUntilTheEventIsLetGoOf) {
  StartFeeding(6);
  m_input.durationSeconds = 5;
  PipelineCollectManager manager(m_managerConfig);
  ASSERT_TRUE(manager.Collect(m_input, m_output));
  ASSERT_NE(m_output.backup, nullptr);
  const auto copies = AwaitCopies();
  for (const auto& [type, path] : m_output.outputs) {
    EXPECT_EQ(std::filesystem::path(path).extension(), ".mp4");
    const auto isCopy = [&, fileType = type](const auto& copy) {
      return copy.first.starts_with(CollectBase::GetPipelineCollectPrefix(fileType)) && copy.first.ends_with(".h264");
    };
    const auto copy = std::ranges::find_if(copies, isCopy);
    ASSERT_NE(copy, copies.end());
    const auto frames = DecodeVideo(path).frames.size();
    EXPECT_TRUE(WaitUntil([&] {
      return DecodeVideo(m_managerConfig.backupDir + copy->first + ".part").frames.size() == frames;
    })) << "of a stream that is an MP4 by now";
  }
  m_output.backup.reset();
  EXPECT_TRUE(WaitUntil([&] { return Saved().empty(); })) << *Saved().begin();
  m_input.discard = true;
  m_input.durationSeconds = 2;
  ASSERT_TRUE(manager.Collect(m_input, m_output));
  EXPECT_TRUE(Saved().empty()) << "nobody wants it";
}

// Catches a save that looks for streams that the mux has removed, and one that writes MP4s where it need not.
TEST_F(CopyAheadTest, AnEventThatIsBeingMuxedIsSavedAsWhatWasCopied) {
  class Failing final : public CollectAsyncCallbackInterface {
   public:
    void CollectFinished(PipelineCollectOutput&, bool, void*) override { called = true; }
    std::atomic<bool> called{false};
  } told;
  StartFeeding(6);
  m_input.durationSeconds = 5;
  PipelineCollectManager manager(m_managerConfig);
  std::atomic<bool> ended{false};
  std::thread failing([&] {
    while (CountThreads("MUX-EVT") == 0 && !ended) std::this_thread::yield();
    manager.PowerFailure();
  });
  ASSERT_TRUE(manager.CollectAsync(m_input, &told, nullptr));
  ASSERT_TRUE(WaitUntil([&] { return told.called.load(); }));
  ended = true;
  failing.join();
  const auto saved = Saved();
  ASSERT_EQ(saved.size(), 4U) << GetLog();
  for (const auto& name : saved) {
    EXPECT_TRUE(name.ends_with(".h264") || name.ends_with(".times")) << name;
    ExpectSaved(name, 4.9);
  }
}

// Catches copies that leave no room to the save itself, and a line for each event.
TEST_F(CopyAheadTest, AFullDiskIsSaidOnceAndTheEventSavedAsEver) {
  std::filesystem::create_directory(m_managerConfig.backupDir);
  if (mount("tmpfs", m_managerConfig.backupDir.c_str(), "tmpfs", 0, "size=3m") != 0) {
    GTEST_SKIP() << "nothing can be mounted";
  }
  StartFeeding(6);
  PipelineCollectManager manager(m_managerConfig);
  m_input.durationSeconds = 5;
  ASSERT_TRUE(manager.Collect(m_input, m_output));
  m_input.durationSeconds = 30;
  auto collect = CollectInBackground(manager);
  manager.PowerFailure();
  EXPECT_TRUE(collect.get());
  const auto saved = Saved();
  for (const auto& name : saved) ExpectSaved(name, 4.3);
  umount(m_managerConfig.backupDir.c_str());
  EXPECT_EQ(saved.size(), 4U) << GetLog();
  EXPECT_EQ(CountLogged("No space left on device; a running event is copied when power fails"), 1) << GetLog();
}

}  // namespace
