// What a recovery makes of whole, cut, empty and foreign files, of a full disk, of a second run, and of being killed.
#include <gmock/gmock.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <random>

#include "Simulator/EncodedMaterial.h"
#include "Support/Fixtures.h"
#include "Support/SoundDecode.h"
#include "Support/VideoDecode.h"
#include "Tavi/PipelineCollect/CollectBase.h"
#include "Tavi/PipelineCollect/EntryTimes.h"
#include "Tavi/RecoveryCollect/EventFileName.h"
#include "Tavi/RecoveryCollect/RecoveryCollectManager.h"

namespace {

using namespace Tavi::RecoveryCollect;
using namespace Tavi;
using Tavi::PipelineCollect::PipelineCollectType;
using namespace Tavi::Simulator;
using namespace Tavi::Testing;
using testing::ElementsAre;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

class RecoveryTest : public TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    for (const char* dir : {"kept", "restore", "backup"}) fs::create_directory(m_dir + dir);
    m_input = {m_dir + "restore/", m_dir + "out/"};
  }
  void Save(const std::string& name, const std::vector<std::uint8_t>& bytes) const { WriteBytes(m_dir + name, bytes); }
  void SaveWhole(const std::string& dir, const std::string& event, const std::vector<std::uint8_t>& fixes) const {
    for (const char* camera : {"video0_", "video1_"}) Save(dir + camera + event + ".h264", m_video);
    Save(dir + "audio_" + event + ".mp3", EncodeMp3(1.0));
    Save(dir + "gps_" + event + ".dat", fixes);
  }
  /// A companion of so many entries: the first at `startMs` by the source's clock and `fromMs` from the moment of the
  /// event, those from the tenth on a second later.
  static std::vector<std::uint8_t> MakeTimes(double rate, int entries, int startMs, int fromMs) {
    std::string text = PipelineCollect::FormatTimesHeader(rate, true);
    for (int n = 0; n < entries; ++n) {
      const auto ns = static_cast<std::int64_t>(n * 1e9 / rate) + (n >= 10 ? 1'000'000'000 : 0);
      text += PipelineCollect::FormatEntryTime(
          {fromMs * 1'000'000LL + ns, static_cast<std::uint64_t>(startMs * 1'000'000LL + ns)});
    }
    return {text.begin(), text.end()};
  }
  bool Collect() { return RecoveryCollectManager::Collect(m_input, m_output); }
  /// Of each product its event's time and seconds, and its file name.
  std::vector<std::string> Record() const {
    std::vector<std::string> lines;
    for (const auto& event : m_output.events) {
      const std::string start = std::to_string(event.output.eventTime) + " " + std::to_string(event.seconds) + " ";
      for (const auto& p : event.output.outputs) lines.push_back(start + fs::path(p.second).filename().string());
    }
    return lines;
  }
  /// Frames, whether there is sound, frames per second.
  std::tuple<int, bool, int> Decode(const std::string& name) const {
    const DecodedVideo video = DecodeVideo(m_input.outputDir + name);
    EXPECT_EQ(video.decodeErrors, 0) << name;
    return {video.frames.size(), video.audioSeconds > 0.9, video.rateNumerator};
  }

  const std::vector<std::uint8_t> m_video = Join(EncodeH264(640, 368, 30, 30, 30));
  const std::vector<std::uint8_t> m_cut{m_video.begin(), m_video.end() - 10};
  const std::vector<std::uint8_t> m_garbage = std::vector<std::uint8_t>(50'000, 0x5A);
  RecoveryCollectInput m_input;
  RecoveryCollectOutput m_output;
};

TEST_F(RecoveryTest, MakesProductsOfWhatIsUsableAndLeavesTheRestAlone) {
  const std::string whole = "crash_20261121T071500Z_30";
  SaveWhole("restore/", whole, {});
  const std::string cut = "crash_20261121T080000Z_7";
  Save("restore/video0_" + cut + ".h264", m_cut);
  Save("restore/audio_" + cut + ".mp3", m_garbage);
  Save("restore/video1_parking.h264.part", m_cut);
  const timespec recorded[]{{1'700'000'000, 0}, {1'700'000'000, 0}};
  utimensat(AT_FDCWD, (m_dir + "restore/video1_parking.h264.part").c_str(), recorded, 0);
  Save("restore/video1_x_20260231T090000Z_1.h264", m_garbage);
  Save("restore/notes.txt", {'n'});
  Save("restore/video0_mux_20261121T090000Z_3.mp4", {'m'});
  mkfifo((m_dir + "restore/audio_pipe.mp3").c_str(), 0600);
  // Longer than the muxer's request has room for, with what it replaces in paths.
  m_input.outputDir = m_dir + std::string(200, 'o') + ".h264/" + std::string(100, 'p');
  for (const int run : {1, 2}) {
    EXPECT_FALSE(Collect());
    EXPECT_THAT(Record(),
                ElementsAre("1795245300 30 video1_" + whole + ".mp4", "1795245300 30 video0_" + whole + ".mp4",
                            "1795245300 30 audio_" + whole + ".mp3", "1795248000 7 video0_" + cut + ".mp4",
                            "1795248000 7 audio_" + cut + ".mp3", "1795251600 3 video0_mux_20261121T090000Z_3.mp4",
                            "1700000000 0 video1_parking.mp4"));
    EXPECT_EQ(m_output.events.back().isNew, run == 1);
    EXPECT_THAT(m_output.leftovers,
                ElementsAre(m_dir + "restore/audio_pipe.mp3", m_dir + "restore/gps_" + whole + ".dat",
                            m_dir + "restore/notes.txt", m_dir + "restore/video1_x_20260231T090000Z_1.h264"));
    EXPECT_EQ(CountLogged("left alone"), 3 * run) << GetLog();
    EXPECT_EQ(CountLogged("cannot recover " + m_output.leftovers.back()), run) << GetLog();
    WriteBytes(m_input.outputDir + "audio_2f1c1f0e-8a45-4a54-9a25-0a8f3b0c7d11.mp3", {1});  // an ordinary event's
  }
  EXPECT_EQ(Decode("video0_" + whole + ".mp4"), std::tuple(30, true, 30));
  EXPECT_EQ(Decode("video1_" + whole + ".mp4"), std::tuple(30, true, 15));
  EXPECT_EQ(Decode("video0_" + cut + ".mp4"), std::tuple(29, false, 30));
  EXPECT_EQ(Decode("video1_parking.mp4"), std::tuple(29, false, 15));
}

// Catches an older event's file that a newer one of the same name replaces: the unit's clock begins anew at each start.
TEST_F(RecoveryTest, OverwritesNothing) {
  const std::string video = "video0_x_20000101T000010Z_5";
  Save("backup/" + video + ".h264", m_video);
  Save("restore/" + video + ".h264", m_garbage);
  Save("restore/video0_y.h264", m_garbage);
  for (const char* dir : {"backup", "restore"}) Save(dir + std::string("/gps_x.dat"), {1});
  const auto moveBackup = [&] { return RecoveryCollectManager::MoveBackup(m_dir + "backup", m_dir + "restore"); };
  EXPECT_FALSE(moveBackup());
  EXPECT_EQ(CountLogged("cannot move " + m_dir + "backup/" + video), 1) << GetLog();
  EXPECT_FALSE(fs::exists(m_dir + "backup/gps_x.dat")) << "moved already, as an interrupted run leaves it";
  fs::remove(m_dir + "restore/" + video + ".h264");
  EXPECT_TRUE(moveBackup());
  fs::create_directory(m_dir + "out");
  Save("out/" + video + ".mp4", m_garbage);
  EXPECT_FALSE(Collect());
  m_input.outputDir = m_dir + "out/../restore";
  EXPECT_FALSE(Collect());
  EXPECT_FALSE(fs::exists(m_dir + "out/video0_y.mp4")) << "what could not be published before was taken for it";
  EXPECT_EQ(ReadFile(m_dir + "out/" + video + ".mp4").size(), m_garbage.size());
  EXPECT_EQ(ReadFile(m_dir + "restore/" + video + ".h264").size(), m_video.size());
}

TEST_F(RecoveryTest, AFullOrMissingDiskLosesNothing) {
  const std::string event = "x_20261121T071500Z_30";
  const std::string video = m_dir + "restore/video0_" + event + ".h264";
  WriteBytes(video, Join(EncodeH264(1280, 720, 30, 5, 30)));
  Save("restore/audio_" + event + ".mp3", EncodeMp3(1.0));
  m_input.outputDir = "/proc/none/";
  EXPECT_FALSE(Collect());
  fs::create_directory(m_input.outputDir = m_dir + "full/");
  if (mount("tmpfs", (m_dir + "full").c_str(), "tmpfs", 0, "size=64k") != 0) GTEST_SKIP() << "nothing can be mounted";
  EXPECT_FALSE(Collect());
  EXPECT_THAT(Record(), ElementsAre("1795245300 30 audio_" + event + ".mp3"));
  EXPECT_FALSE(RecoveryCollectManager::MoveBackup(m_dir + "restore", m_dir + "full"));
  EXPECT_EQ(CountLogged("cannot recover " + video) + CountLogged("cannot move " + video), 3) << GetLog();
  EXPECT_EQ(std::distance(fs::directory_iterator(m_dir + "full"), {}), 1) << "something half-made is left";
  mount("tmpfs", (m_dir + "full").c_str(), "tmpfs", MS_REMOUNT, "size=8m");
  EXPECT_TRUE(Collect() && fs::is_empty(m_dir + "restore"));
  EXPECT_EQ(Decode("video0_" + event + ".mp4"), std::tuple(30, true, 30)) << "with the sound recovered before";
  umount((m_dir + "full").c_str());
}

// Frames at a rate that the camera did not keep, sound that begins with the picture wherever it was, and an event that
// is told otherwise by the run after the one that was interrupted.
TEST_F(RecoveryTest, CompanionsPlaceFramesAndSoundAndGoAlong) {
  const std::string event = "0a1b2c3d_20261121T071500Z_3";
  SaveWhole("restore/", event, {1, 0, 0, 0, 'f'});
  Save("restore/video0_" + event + ".h264.times", MakeTimes(30, 30, 5'000, -2'000));
  Save("restore/video1_" + event + ".h264.times.part", MakeTimes(15, 20, 5'250, -1'750));
  Save("restore/audio_" + event + ".mp3.times", MakeTimes(38.28, 38, 5'500, -1'500));
  Save("restore/gps_" + event + ".dat.times", MakeTimes(1, 1, 0, -900));
  Save("restore/acc_" + event + ".dat.times", MakeTimes(10, 1, 0, -900));
  for (const int run : {1, 2}) {
    SCOPED_TRACE(run);
    EXPECT_TRUE(Collect()) << GetLog();
    EXPECT_TRUE(m_output.leftovers.empty());
    ASSERT_EQ(m_output.events.size(), 1U);
    const auto& windows = m_output.events[0].output.windows;
    ASSERT_EQ(windows.size(), 4U);
    const auto& camera = windows.at(PipelineCollectType::VideoCamera0);
    EXPECT_NEAR(camera.fromSeconds, -2.0, 1e-6);
    EXPECT_NEAR(camera.toSeconds, -2.0 + 29.0 / 30 + 1.0, 1e-6);
    EXPECT_EQ(camera.firstTimestampNs, 5'000'000'000U);
    EXPECT_NEAR(windows.at(PipelineCollectType::Gps).fromSeconds, -0.9, 1e-6);
  }
  for (const auto& [camera, soundAt] : {std::pair("video0_", 0.5), {"video1_", 0.25}}) {
    const std::string path = m_input.outputDir + camera + event + ".mp4";
    const auto frames = DecodeVideo(path).frames;
    ASSERT_EQ(frames.size(), 30U);
    EXPECT_NEAR(frames[10].seconds - frames[9].seconds, 1.0 + (soundAt == 0.5 ? 1.0 / 30 : 1.0 / 15), 0.01) << camera;
    EXPECT_NEAR(DecodeSound(path).startSeconds, soundAt, 0.04) << camera;
  }
  for (const auto& entry : fs::directory_iterator(m_input.outputDir)) {
    if (!entry.path().string().ends_with(".times")) fs::remove(entry);
  }
  EXPECT_TRUE(Collect() && fs::is_empty(m_input.outputDir)) << "companions outlive what they belong to";
}

// One event that becomes two, or never goes away, because a copy or a mux was interrupted.
TEST_F(RecoveryTest, OfTwoCopiesTheBetterOneIsRecovered) {
  const std::string event = "crash-0a1b2c3d_20261121T071500Z_0";
  Save("restore/video0_" + event + ".h264", m_cut);
  Save("restore/video0_" + event + ".mp4", {'m'});
  Save("restore/video1_" + event + ".h264", m_video);
  Save("restore/video1_" + event + ".h264.part", m_cut);
  Save("restore/gps_" + event + ".dat", {1, 2, 3});
  Save("restore/gps_" + event + ".dat.part", {1});
  EXPECT_TRUE(Collect()) << GetLog();
  EXPECT_TRUE(fs::is_empty(m_dir + "restore"));
  EXPECT_EQ(ReadFile(m_dir + "out/video0_" + event + ".mp4"), "m");
  EXPECT_EQ(ReadFile(m_dir + "out/gps_" + event + ".dat").size(), 3U);
  EXPECT_EQ(std::get<0>(Decode("video1_" + event + ".mp4")), 30);
}

// A recorder that dies of, or waits for, the same file at each start.
TEST_F(RecoveryTest, AFileThatHasFailedTwiceIsLeftAlone) {
  Save("restore/video0_x.h264", m_garbage);
  Save("restore/video1_x.h264", m_video);
  for (const int run : {1, 2, 3, 4}) {
    EXPECT_FALSE(Collect());
    EXPECT_EQ(CountLogged("cannot recover " + m_dir + "restore/video0_x.h264"), std::min(run, 2)) << GetLog();
    EXPECT_THAT(m_output.leftovers, ElementsAre(m_dir + "restore/video0_x.h264"));
    EXPECT_TRUE(m_output.events.at(0).isComplete) << "nothing more becomes of it";
  }
  EXPECT_EQ(CountLogged("it is left alone"), 2) << GetLog();
}

struct SavedStream : Tavi::PipelineCollect::CollectBase {
  explicit SavedStream(const fs::path& path) : CollectBase(ParseBackupName(path.filename())->type) { m_path = path; }
  void Collect() override {}
};

/// One life of a unit with its disks in `dir`: saves what the RAM disk holds, then recovers.
int LiveIn(const std::string& dir) {
  raise(SIGSTOP);  // its life counts from where the parent lets it go on
  std::vector<std::thread> copies;
  for (const auto& entry : fs::directory_iterator(dir + "ram")) {
    if (entry.path().extension() == ".times") continue;
    copies.emplace_back([&dir, path = entry.path()] {
      SavedStream(path).Backup(dir + "backup", ParseBackupName(path.filename())->event);
    });
  }
  for (auto& copy : copies) copy.join();
  RecoveryCollectInput input{dir + "restore", dir + "out"};
  RecoveryCollectOutput output;
  RecoveryCollectManager::MoveBackup(dir + "backup", input.restoreDir);
  RecoveryCollectManager::Collect(input, output);
  _exit(0);
}

/// This program is its own victim: told so, it lives that life and never gets to its tests.
[[maybe_unused]] const int NoVictim = std::getenv("TAVI_VICTIM") != nullptr ? LiveIn(std::getenv("TAVI_VICTIM")) : 0;

/// Lets a victim live for so long at most. True when it was killed.
bool Live(const std::string& dir, Clock::duration life) {
  std::string disks = "TAVI_VICTIM=" + dir;
  char* const environment[]{disks.data(), nullptr};
  int status = 0;
  pid_t child = 0;
  EXPECT_EQ(posix_spawn(&child, "/proc/self/exe", nullptr, nullptr, environment, environment), 0);
  waitpid(child, &status, WUNTRACED);
  kill(child, SIGCONT);
  for (const auto end = Clock::now() + life; waitpid(child, &status, WNOHANG) == 0;) {
    if (Clock::now() >= end) kill(child, SIGKILL);
    std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
  EXPECT_TRUE(WIFSIGNALED(status) || status == 0) << status;
  return WIFSIGNALED(status);
}

// Kills at random instants between the start of the backup and the end of the recovery. TAVI_KILL_ROUNDS says how many.
TEST_F(RecoveryTest, WhatWasSavedIsRecoveredWheneverTheKillComes) {
  const std::vector<std::uint8_t> fixes(1'000'000, 'f');
  for (const std::string event : {"a_20261121T071500Z_30", "b_20261121T071501Z_4"}) SaveWhole("kept/", event, fixes);
  for (const std::string file : {"video0_a_20261121T071500Z_30.h264", "audio_a_20261121T071500Z_30.mp3"}) {
    Save("kept/" + file + ".times", MakeTimes(30, 30, 5'000, -2'000));
  }
  setenv("TAVI_KILL_ROUNDS", "10", 0);
  const int rounds = std::atoi(std::getenv("TAVI_KILL_ROUNDS"));
  const std::string otherDisk = "/dev/shm/tavi-kill-" + std::to_string(getpid());
  std::mt19937 random(std::random_device{}());
  Clock::duration whole = std::chrono::minutes(1);
  // More of them early: the backup is the shorter part.
  const auto life = [&]() -> Clock::duration { return whole * (random() % 100) * (random() % 100) / 10'000; };
  int kills = 0;
  for (int round = 0; round <= rounds && !HasFailure(); ++round) {
    for (const auto& dir : {m_dir + "restore", m_dir + "out", m_dir + "ram", otherDisk}) fs::remove_all(dir);
    for (const auto& dir : {m_dir + "out", otherDisk}) fs::create_directory(dir);
    if (round % 2 == 0) fs::create_directory_symlink(otherDisk, m_dir + "restore");
    fs::copy(m_dir + "kept", m_dir + "ram");
    const auto start = Clock::now();
    kills += Live(m_dir, round == 0 ? whole : life()) ? 1 : 0;
    if (round == 0) whole = Clock::now() - start;
    std::map<std::string, std::string> saved;
    for (const auto& entry : fs::directory_iterator(m_dir + "kept")) {
      const std::string name = entry.path().filename();
      if (entry.path().extension() == ".times") continue;
      const std::string product = BuildProductName(ParseBackupName(name)->type, ParseBackupName(name)->event);
      for (const auto& place : {"backup/" + name, "restore/" + name, "out/" + product}) {
        if (fs::exists(m_dir + place)) saved[name] = product;
      }
      fs::remove(m_dir + "ram/" + name);
    }
    while (random() % 3 != 0 && Live(m_dir, life())) ++kills;
    std::cout << saved.size() << " streams saved, " << kills << " kills\n";
    EXPECT_FALSE(Live(m_dir, std::chrono::minutes(1)));
    Collect();
    for (const auto& left : m_output.leftovers) EXPECT_TRUE(left.ends_with(".part")) << left;
    EXPECT_TRUE(fs::is_empty(m_dir + "backup"));
    for (const auto& [name, product] : saved) {
      if (!fs::exists(m_dir + "kept/" + name + ".times")) continue;
      EXPECT_TRUE(ReadFile(m_dir + "out/" + product + ".times") == ReadFile(m_dir + "kept/" + name + ".times")) << name;
    }
    // A stream that was not saved whole may have its companion, too.
    std::size_t companions = 0;
    for (const auto& entry : fs::directory_iterator(m_dir + "out")) {
      const auto& path = entry.path();
      companions += path.extension() == ".times" && fs::exists(path.parent_path() / path.stem()) ? 1 : 0;
    }
    EXPECT_EQ(std::distance(fs::directory_iterator(m_dir + "out"), {}), Record().size() + companions)
        << "something is half-made";
    for (const auto& [name, product] : saved) {
      const bool withSound = saved.contains("audio_" + ParseBackupName(name)->event + ".mp3");
      EXPECT_TRUE(name.starts_with("video") ? Decode(product) >= std::tuple(30, withSound, 0)
                                            : ReadFile(m_dir + "out/" + product) == ReadFile(m_dir + "kept/" + name));
    }
  }
  EXPECT_GT(kills, 0);
  fs::remove_all(otherDisk);
}

}  // namespace
