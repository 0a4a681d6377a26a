// A start on a disk that fails: power that is cut before each operation, after which there is what was synced and
// nothing else, and reads that fail.
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>

#include <fstream>
#include <map>
#include <sstream>

#include "Kbase/Klog/Logger.h"
#include "Kbase/Util/Naming.h"
#include "Recorder/Service/EventArchive.h"
#include "Recorder/Service/WaitingEvent.h"
#include "Simulator/EncodedMaterial.h"
#include "Support/Fixtures.h"

#ifdef FORGETFUL_DISK

namespace Tavi::Recorder {
namespace {

namespace fs = std::filesystem;

/// Interrupted by power: its files are in the backup directory, and on the disk.
constexpr const char* Saved = "0000000a";
/// Of a process that has died: its files are in memory.
constexpr const char* Crashed = "0000000b";
/// Complete, and waiting in the backup directory for room.
constexpr const char* Waiting = "0000000c";
/// An event already, with a product that a power cut has brought back.
constexpr const char* Stored = "0000000d";
/// Interrupted without any warning: the beginning of its files was copied ahead, as of all but the first.
constexpr const char* Cut = "0000000e";

StorageSettings GetSettings(const std::string& disk, const std::string& ram) {
  StorageSettings settings;
  settings.eventsDir = disk + "events/";
  settings.backupDir = disk + "backup/";
  settings.restoreDir = disk + "restore/";
  settings.workDir = ram;
  settings.minFreeBytes = 0;
  return settings;
}

/// A start of the recorder.
void Start(const std::string& disk, const std::string& ram) {
  const TimeOfDay timeOfDay;
  EventArchive archive(GetSettings(disk, ram), timeOfDay);
  std::string problem;
  EXPECT_TRUE(archive.Open(problem)) << problem;
  archive.Recover({});
}

/// This program is its own victim: told so, it starts once and never gets to its tests.
[[maybe_unused]] const bool NoVictim = [] {
  const char* dir = std::getenv("TAVI_CUT_VICTIM");
  if (dir == nullptr) return true;
  for (FILE* stream : {stdout, stderr})
    static_cast<void>(!std::freopen((std::string(dir) + "said").c_str(), "a", stream));
  Start(std::string(dir) + "disk/", std::string(dir) + "ram/");
  Kbase::Klog::Logger::GetInstance().Flush();
  _exit(0);
}();

class PowerCutTest : public Testing::TempDirTest {
 protected:
  static void Write(const std::string& path, const std::string& text) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path) << text;
  }
  void Prepare() const {
    for (const char* dir : {"disk", "ram", "memory", "after"}) {
      fs::remove_all(m_dir + dir);
      fs::create_directory(m_dir + dir);
    }
    const auto settings = GetSettings(m_dir + "disk/", m_dir + "ram/");
    for (const auto& dir : {settings.eventsDir, settings.backupDir, settings.restoreDir}) fs::create_directory(dir);
    EventStore::EventDescription request;
    for (const char* id : {Saved, Crashed, Cut, Waiting}) {
      request.id = id;
      request.label = id;
      request.timeMs = 1'795'262'400'000;
      EventArchive(settings, TimeOfDay()).Announce(request, false);
    }
    std::string problem;
    Write(m_dir + "gps.dat", "fix");
    const std::string secured = settings.backupDir + ".event-" + Waiting + "/";
    EXPECT_TRUE(CopyWaiting({request, {{"Gps", m_dir + "gps.dat"}}, Waiting, {}}, secured, problem)) << problem;
    request.id = request.label = Stored;
    std::string dir;
    EXPECT_TRUE(
        EventStore::EventWriter(settings.eventsDir).Commit(request, {{"Gps", m_dir + "gps.dat"}}, false, dir, problem))
        << problem;
    Write(settings.eventsDir + ".recovered/gps_crash-" + Stored + "_20261121T120010Z_12.dat", "fix");
    const std::string saved = std::string("_") + Saved + "_20261121T120010Z_12";
    Simulator::WriteBytes(settings.backupDir + "video0" + saved + ".h264", m_video);
    Write(settings.backupDir + "video0" + saved + ".h264.times", "times 1 30 captured\n-1000000000 5\n");
    Write(settings.backupDir + "gps" + saved + ".dat", "fix");
    Write(settings.backupDir + "gps" + saved + ".dat.times", "times 1 1 counted\n-1000000000 -\n");
    for (const char* id : {Crashed, Waiting, Stored, Cut}) {
      const std::string ahead = settings.backupDir + "gps_" + id + "_20261121T120000Z.dat";
      Write(ahead + ".part", "fi");
      Write(ahead + ".times.part", "times 1 1 counted\n-1000000000 -\n");
    }
    const std::string uid = Kbase::Util::NewUid();
    Write(m_dir + "ram/" + Crashed + "/gps_" + uid + ".dat", "fix");
    Write(m_dir + "ram/" + Crashed + "/acc_" + uid + ".dat", "acc");
  }
  /// One start, which says what it says in the file "said". True when the victim ended by itself: there is no operation
  /// of that number.
  bool Live(std::vector<std::string> settings) const {
    settings.insert(settings.end(), {"LD_PRELOAD=" FORGETFUL_DISK, "TAVI_CUT_VICTIM=" + m_dir});
    std::vector<char*> environment;
    for (auto& setting : settings) environment.push_back(setting.data());
    environment.push_back(nullptr);
    char* const arguments[]{settings[0].data(), nullptr};
    pid_t child = 0;
    int status = 0;
    EXPECT_EQ(posix_spawn(&child, "/proc/self/exe", nullptr, nullptr, arguments, environment.data()), 0);
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) ? WEXITSTATUS(status) == 0 : WTERMSIG(status) == SIGKILL) << status;
    return WIFEXITED(status);
  }
  /// What the disk has after the cut.
  void Rebuild(const std::string& key, const std::string& dir) const {
    std::istringstream names(Testing::ReadFile(m_dir + "memory/" + key));
    fs::create_directories(dir);
    std::string kind;
    std::string of;
    for (std::string name; names >> kind >> of >> std::ws && std::getline(names, name);) {
      if (kind == "d") {
        Rebuild(of, dir + "/" + name);
      } else {
        std::ofstream(dir + "/" + name) << Testing::ReadFile(m_dir + "memory/" + of);
      }
    }
  }
  /// Label to the types of its files, of each event in the end; one that is there twice has two lists.
  std::map<std::string, std::string> FinishAndRead(const std::string& disk) const {
    Start(disk, m_dir + "ram/");
    const auto settings = GetSettings(disk, m_dir + "ram/");
    std::map<std::string, std::string> events;
    for (const auto& entry : EventStore::ListEvents(settings.eventsDir)) {
      std::string problem;
      const auto event = EventStore::ReadEvent(settings.eventsDir + entry.name, problem);
      EXPECT_TRUE(event) << problem;
      std::string& text = events[event->label];
      for (const auto& file : event->files) {
        text += file.type + " ";
        EXPECT_EQ(fs::file_size(settings.eventsDir + entry.name + "/" + file.name), file.bytes) << file.name;
      }
      text += ";";
    }
    for (const auto& dir :
         {settings.backupDir, settings.restoreDir, settings.workDir, settings.eventsDir + ".recovered/"}) {
      EXPECT_TRUE(!fs::exists(dir) || fs::is_empty(dir)) << fs::directory_iterator(dir)->path();
    }
    return events;
  }

  /// What there is of the events whose end does not depend on the instant.
  void ExpectSettled(std::map<std::string, std::string>& events, const std::string& said = {}) {
    EXPECT_EQ(events[Saved], m_saved) << said << GetLog();
    EXPECT_EQ(events[Waiting] + events[Stored], m_waiting + m_waiting) << said << GetLog();
    EXPECT_EQ(events[Cut], "Gps GpsTimes ;") << said << GetLog();
    EXPECT_TRUE(events[Crashed].starts_with("Gps ")) << "what was copied ahead: " << events[Crashed];
    EXPECT_LE(events[Crashed].size(), m_crashed.size());
    EXPECT_EQ(events.size(), 5U) << said << GetLog();
  }

  const std::vector<std::uint8_t> m_video = Simulator::Join(Simulator::EncodeH264(64, 64, 30, 10, 30));
  const std::string m_saved = "VideoCamera0 Gps GpsTimes ;";
  const std::string m_crashed = "Gps GpsTimes Acc ;";
  /// Of what waits, and of what is stored.
  const std::string m_waiting = "Gps ;";
};

// A sync that is missing, which no kill shows: a name, a content or a removal that is taken for lasting and is not.
TEST_F(PowerCutTest, AtWhateverOperationNothingIsLostAndNothingDoubled) {
  setenv("TAVI_CUT_STEP", "5", 0);
  const int step = std::atoi(std::getenv("TAVI_CUT_STEP"));
  int operation = 1 + static_cast<int>(getpid()) % step;
  for (bool hasEnded = false; !hasEnded && !HasFailure(); operation += step) {
    SCOPED_TRACE("cut at operation " + std::to_string(operation));
    Prepare();
    hasEnded = Live({"TAVI_DISK_ROOT=" + m_dir + "disk", "TAVI_DISK_MEMORY=" + m_dir + "memory",
                     "TAVI_DISK_DIES_AT=" + std::to_string(operation)});
    const bool isCrashedSafe = !fs::exists(m_dir + "ram/" + Crashed);
    // The machine has lived on.
    fs::copy(m_dir + "disk", m_dir + "lived", fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    auto events = FinishAndRead(m_dir + "lived/");
    ExpectSettled(events);
    EXPECT_EQ(events[Crashed], m_crashed) << GetLog();
    // And here it has not.
    ClearLog();
    fs::remove_all(m_dir + "ram");
    Rebuild(Testing::ReadFile(m_dir + "memory/root"), m_dir + "after");
    // What has become an event does not come back when that is deleted.
    const std::string left = m_dir + "after/events/.recovered";
    EXPECT_TRUE(!hasEnded || !fs::exists(left) || fs::is_empty(left)) << fs::directory_iterator(left)->path();
    events = FinishAndRead(m_dir + "after/");
    ExpectSettled(events);
    if (isCrashedSafe) {
      EXPECT_EQ(events[Crashed], m_crashed) << GetLog();
    }
    fs::remove_all(m_dir + "lived");
  }
  EXPECT_GT(operation, 30);
  std::cout << operation << " operations\n";
}

// What cannot be read once, and is taken for not there, for nothing or for broken.
TEST_F(PowerCutTest, AReadThatFailsLosesNothingAndIsSaid) {
  const int step = std::atoi(std::getenv("TAVI_CUT_STEP") != nullptr ? std::getenv("TAVI_CUT_STEP") : "12");
  int number = 1 + static_cast<int>(getpid()) % step;
  for (bool hasFailed = true; hasFailed && !HasFailure(); number += step) {
    SCOPED_TRACE("read " + std::to_string(number));
    Prepare();
    fs::remove(m_dir + "said");
    const bool hasEnded = Live({"TAVI_DISK_ROOT=" + m_dir, "TAVI_DISK_FAILS_READ=" + std::to_string(number)});
    const std::string said = Testing::ReadFile(m_dir + "said");
    EXPECT_TRUE(hasEnded) << said;
    hasFailed = said.find("preloaded disk: EIO") != std::string::npos;
    // There is always one warning, of the process that died.
    const bool isSaid = said.find("[ERROR]") != std::string::npos || said.find("[WARNING]") != said.rfind("[WARNING]");
    EXPECT_TRUE(!hasFailed || isSaid) << said;
    auto events = FinishAndRead(m_dir + "disk/");
    ExpectSettled(events, said);
    EXPECT_EQ(events[Crashed], m_crashed) << said << GetLog();
  }
  EXPECT_GT(number, 30);
}

}  // namespace
}  // namespace Tavi::Recorder

#endif
