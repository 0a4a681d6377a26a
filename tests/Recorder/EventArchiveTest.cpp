// From the working disk to the events directory: what waits for room, and what deaths in between leave.
#include "Recorder/Service/EventArchive.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <nlohmann/json.hpp>

#include "EventStore/EventName.h"
#include "Kbase/Util/Naming.h"
#include "Support/Fixtures.h"

namespace Tavi::Recorder {
namespace {

namespace fs = std::filesystem;
using EventStore::EventDescription;
using EventStore::SourceFile;

constexpr std::int64_t Noon = 1'795'262'400'000;
const std::string Stamp = "_20261121T120010Z_12";

class EventArchiveTest : public Testing::TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    m_settings.eventsDir = m_dir + "events/";
    m_settings.workDir = m_dir + "work/";
    m_settings.backupDir = m_dir + "backup/";
    m_settings.restoreDir = m_dir + "restore/";
    m_settings.minFreeBytes = 0;
  }
  static void Write(const std::string& path, const std::string& text) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path) << text;
  }
  /// As a start of the recorder does.
  std::unique_ptr<EventArchive> Start() {
    auto archive = std::make_unique<EventArchive>(m_settings, m_timeOfDay);
    std::string problem;
    EXPECT_TRUE(archive->Open(problem)) << problem;
    archive->Recover({});
    return archive;
  }
  static EventDescription Describe(const std::string& id) {
    EventDescription event;
    event.id = id;
    event.label = "label " + id;
    event.timeMs = Noon;
    event.streams = {{"Gps", 3, 1.0, -1.25, 0.75, {}, {}}};
    return event;
  }
  EventResult Save(EventArchive& archive, const std::string& id, bool keep, std::optional<Moment> moment = {}) {
    const std::string path = m_settings.workDir + id + "/gps_" + Kbase::Util::NewUid() + ".dat";
    Write(path, id);
    auto event = Describe(id);
    archive.Announce(event, keep);
    return archive.Save(event, {{"Gps", path}}, id, keep, moment);
  }
  /// Label and files of each event.
  std::map<std::string, std::string> ReadEvents() const {
    std::map<std::string, std::string> events;
    for (const auto& entry : EventStore::ListEvents(m_settings.eventsDir)) {
      std::string problem;
      const auto event = EventStore::ReadEvent(m_settings.eventsDir + entry.name, problem);
      EXPECT_TRUE(event) << problem;
      std::string& text = events[entry.id];
      text = event->label + (event->interrupted ? ", interrupted" : "");
      for (const auto& file : event->files) text += " " + file.type;
    }
    return events;
  }
  /// Nothing is left of anything but the events.
  void ExpectClean() const {
    for (const auto& dir : {m_settings.workDir, m_settings.backupDir, m_settings.restoreDir}) {
      EXPECT_TRUE(fs::is_empty(dir)) << dir << fs::directory_iterator(dir)->path();
    }
    const std::string recovered = m_settings.eventsDir + ".recovered";
    EXPECT_TRUE(!fs::exists(recovered) || fs::is_empty(recovered));
    for (const auto& entry : fs::directory_iterator(m_settings.eventsDir)) {
      EXPECT_FALSE(entry.path().filename().string().starts_with(".request-")) << entry;
    }
  }

  StorageSettings m_settings;
  TimeOfDay m_timeOfDay;
};

// A complete event that comes back as an interrupted one without its words and times, that is lost with the RAM disk,
// or that waits for ever.
TEST_F(EventArchiveTest, WhatWaitsForRoomSurvivesAsWhatItIs) {
  m_settings.maxEvents = 1;
  for (const bool isSecured : {false, true}) {
    SCOPED_TRACE(isSecured);
    {
      const auto archive = Start();
      EXPECT_TRUE(Save(*archive, "0000000a", true).isSaved);
      const auto refused = Save(*archive, "0000000b", true);
      EXPECT_FALSE(refused.isSaved);
      EXPECT_TRUE(refused.isWaiting);
      EXPECT_NE(refused.problem.find("maxEvents"), std::string::npos) << refused.problem;
      if (isSecured) archive->SecureWaiting();
      EXPECT_EQ(fs::exists(m_settings.workDir + "0000000b"), !isSecured);
    }
    if (isSecured) fs::remove_all(m_settings.workDir);
    {
      const auto archive = Start();
      EXPECT_EQ(archive->Describe()["waiting"], 1);
      archive->Maintain();
      EXPECT_EQ(ReadEvents().size(), 1U);
      std::string problem;
      EXPECT_TRUE(archive->GetStore().SetProtected("0000000a", false, problem)) << problem;
      archive->Maintain();
      const std::map<std::string, std::string> expected{{"0000000b", "label 0000000b Gps"}};
      EXPECT_EQ(ReadEvents(), expected);
      EXPECT_TRUE(EventStore::ListEvents(m_settings.eventsDir)[0].isProtected);
    }
    ExpectClean();
    fs::remove_all(m_settings.eventsDir);
  }
}

// An event of before the first fix that waits and is dated 1970 for good.
TEST_F(EventArchiveTest, WhatWaitsWhenTheFirstFixComesIsPlaced) {
  m_settings.maxEvents = 1;
  const auto archive = Start();
  EXPECT_TRUE(Save(*archive, "0000000a", true, Moment{{}, 5000}).isSaved);
  const auto refused = Save(*archive, "0000000b", true, Moment{{}, 6000});
  EXPECT_EQ(refused.time->timeMs, 6000);
  archive->Announce(Describe("0000000c"), true,
                    Moment{std::chrono::steady_clock::time_point(std::chrono::seconds(2)), Noon});
  for (int second = 1; second <= 3; ++second) {
    m_timeOfDay.Learn({Noon + second * 1000, std::chrono::steady_clock::time_point(std::chrono::seconds(second))});
  }
  EXPECT_EQ(EventStore::ListEvents(m_settings.eventsDir)[0].name, "19700101T000005Z_0000000a");
  std::string problem;
  EXPECT_TRUE(archive->GetStore().SetProtected("0000000a", false, problem)) << problem;
  archive->Maintain();
  EXPECT_EQ(EventStore::ListEvents(m_settings.eventsDir)[0].name, "20261121T120000Z_0000000b");
  const auto event = EventStore::ReadEvent(m_settings.eventsDir + "20261121T120000Z_0000000b", problem);
  ASSERT_TRUE(event) << problem;
  EXPECT_EQ(event->timeSource, "receiver");
  EXPECT_EQ(EventStore::GetSystemTimeMs(*event), 6000);
  archive->PlaceAnnounced();
  const auto noted = EventStore::ReadEvent(m_settings.eventsDir + ".request-0000000c", problem);
  ASSERT_TRUE(noted) << problem;
  EXPECT_EQ(noted->timeMs, Noon + 2000) << "power may fail before it is an event";
}

// One that was asked to be kept and gives way to others.
// Catches a unit that records nothing for want of a key, or nobody hears of it.
TEST_F(EventArchiveTest, WithoutAKeyEventsAreSavedAndStatusSaysThatNobodySignsThem) {
  for (const bool hasKey : {false, true}) {
    m_settings.keyFile = m_dir + (hasKey ? "made.pem" : "ruined.pem");
    if (!hasKey) Write(m_settings.keyFile, "no key");
    auto archive = Start();
    const auto result = Save(*archive, hasKey ? "0000000b" : "0000000a", false);
    ASSERT_TRUE(result.isSaved) << result.problem;
    std::string problem;
    EXPECT_EQ(EventStore::ReadEvent(result.directory, problem)->seal.has_value(), hasKey) << problem;
    EXPECT_EQ(archive->Describe()["unsigned"].get<std::string>().empty(), hasKey);
    EXPECT_EQ(archive->DescribeIdentity().contains("error"), !hasKey);
  }
}

TEST_F(EventArchiveTest, WhatIsToBeKeptIsNeverGivenUp) {
  m_settings.maxEvents = 1;
  const auto archive = Start();
  EXPECT_TRUE(Save(*archive, "00000000", true).isSaved);
  for (int n = 1; n <= 7; ++n) EXPECT_FALSE(Save(*archive, "0000000" + std::to_string(n), n <= 2).isSaved);
  EXPECT_EQ(archive->Describe()["waiting"], 4);
  for (int n = 1; n <= 7; ++n) {
    EXPECT_EQ(fs::exists(m_settings.workDir + "0000000" + std::to_string(n)), n <= 2 || n >= 6) << n;
  }
  for (const char* id : {"00000008", "00000009"}) EXPECT_TRUE(Save(*archive, id, true).isWaiting);
  EXPECT_FALSE(Save(*archive, "0000000a", false).isWaiting) << "it gave way at once, and is not promised to anybody";
}

// A request that is told the id of another event, where a unit draws the same numbers after each start: of one that an
// earlier process has saved, of one that a cut has left nothing of but its note, of one that this process has saved.
TEST_F(EventArchiveTest, NoRequestIsToldTheIdOfAnotherEvent) {
  Save(*Start(), "00000001", false);
  Start()->Announce(Describe("00000002"), false);
  EventArchive archive(m_settings, m_timeOfDay, [at = 0]() mutable { return "0000000" + std::to_string(++at); });
  std::string problem;
  ASSERT_TRUE(archive.Open(problem)) << problem;
  Save(archive, "00000003", false);
  EXPECT_EQ(archive.NewId(), "00000004");
}

// One event that becomes two, by each way that a death at some instant was found to lead there.
TEST_F(EventArchiveTest, NothingIsThereTwice) {
  const std::string id = "0a1b2c3d";
  const std::string uid = Kbase::Util::NewUid();
  const std::string work = m_settings.workDir + id + "/";
  const std::string recovered = m_settings.eventsDir + ".recovered/gps_" + id + Stamp + ".dat";
  const auto collect = [&] {
    Write(work + "gps_" + uid + ".dat", "fix");
    Write(work + "acc_" + uid + ".dat", "acc");
  };
  const struct {
    const char* what;
    std::function<void()> leave;
  } cases[] = {
      {"the process died", collect},
      {"and an empty file is there, and the preview's sound",
       [&] {
         collect();
         Write(work + "other_" + uid + ".dat", "");
         Write(work + "audio_preview_preview_" + uid + ".h264.mp3", "sound");
       }},
      {"power failed, one file was not saved, and the machine has outlived it",
       [&] {
         collect();
         Write(m_settings.backupDir + "gps_" + id + Stamp + ".dat", "fix");
         Write(m_settings.backupDir + "acc_" + id + Stamp + ".dat.part", "a");
       }},
      {"half of it is on the way out",
       [&] {
         collect();
         fs::rename(m_settings.workDir + id, m_settings.workDir + ".old_" + id);
         Write(m_settings.backupDir + "gps_" + id + Stamp + ".dat", "fix");
         Write(m_settings.restoreDir + "acc_" + id + Stamp + ".dat", "acc");
       }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    fs::remove_all(m_settings.eventsDir);
    Start()->Announce(Describe(id), false);
    c.leave();
    const std::map<std::string, std::string> expected{{id, "label " + id + ", interrupted Gps Acc"}};
    Start();
    EXPECT_EQ(ReadEvents(), expected) << GetLog();
    ExpectClean();
    // The event is there, and power comes back to what it was made of.
    collect();
    Write(recovered, "fix");
    Write(m_settings.restoreDir + "acc_" + id + Stamp + ".dat", "acc");
    Write(m_settings.backupDir + "gps_crash-" + id + Stamp + ".dat", "fix");
    Start();
    EXPECT_EQ(ReadEvents(), expected) << GetLog();
    ExpectClean();
  }
}

// Two recorders that take each other's files away.
TEST_F(EventArchiveTest, EachDirectoryBelongsToOneProcess) {
  const auto first = Start();
  const auto own = m_settings;
  for (std::string StorageSettings::*shared : {&StorageSettings::eventsDir, &StorageSettings::workDir,
                                               &StorageSettings::backupDir, &StorageSettings::restoreDir}) {
    m_settings = {m_dir + "e2/", m_dir + "w2/", m_dir + "b2/", m_dir + "r2/"};
    m_settings.*shared = own.*shared;
    std::string problem;
    EXPECT_FALSE(EventArchive(m_settings, m_timeOfDay).Open(problem));
    EXPECT_NE(problem.find("in use by another process"), std::string::npos) << problem;
  }
}

}  // namespace
}  // namespace Tavi::Recorder
