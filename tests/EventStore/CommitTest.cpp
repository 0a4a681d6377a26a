// Commits: a whole event or none, whatever stops them, and nothing lost on the way.
#include <sys/mount.h>
#include <sys/stat.h>

#include "EventStore/StoreFixture.h"

namespace Tavi::EventStore {
namespace {

/// FIPS 180-4, examples: SHA-256 of "abc".
constexpr const char* AbcHash = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
constexpr const char* Name = "20261121T134005Z_9f3ca1b2";

class CommitTest : public StoreTest {
 protected:
  std::vector<SourceFile> MakeSources() {
    return {MakeSource("Gps", "gps_1.dat", "abc"), MakeSource("VideoCamera1", "video1_1.mp4", m_video)};
  }
  bool Commit(EventWriter& writer, const std::vector<SourceFile>& sources, const std::string& id = "9f3ca1b2") {
    m_event = MakeEvent(id);
    return writer.Commit(m_event, sources, false, m_eventDir, m_problem);
  }
  void ExpectWholeEvent(const std::string& dir) {
    const auto read = ReadEvent(dir, m_problem);
    ASSERT_TRUE(read) << m_problem;
    ASSERT_EQ(read->files.size(), 2U);
    EXPECT_EQ(read->files[0].type, "VideoCamera1") << "not in the order of the types";
    EXPECT_EQ(read->files[0].bytes, m_video.size());
    EXPECT_TRUE(Testing::ReadFile(dir + "/video1_1.mp4") == m_video);
    EXPECT_EQ(read->files[1].sha256, AbcHash);
    EXPECT_EQ(Testing::ReadFile(dir + "/gps_1.dat"), "abc");
  }

  /// Several blocks, the last one not full, more than one part that is written behind.
  const std::string m_video = std::string(5'000'001, 'v');
  EventDescription m_event;
};

// A copy that loses a block, a hash of something else, a source that stays.
TEST_F(CommitTest, OnOneDiskAndAcrossTwoTheEventIsWholeAndTheSourcesAreGone) {
  const std::string shared = "/dev/shm/tavi-event-" + std::to_string(getpid()) + "/";
  for (const std::string& ram : {m_ram, shared}) {
    m_ram = ram;
    std::filesystem::create_directory(ram);
    EventWriter writer(m_events);
    ASSERT_TRUE(Commit(writer, MakeSources())) << m_problem;
    EXPECT_EQ(m_eventDir, m_events + "/" + Name);
    EXPECT_EQ(List(m_events), std::string(Name) + " ");
    ExpectWholeEvent(m_eventDir);
    EXPECT_EQ(List(ram), "");
    std::filesystem::remove_all(m_events);
  }
  std::filesystem::remove(shared);
}

// A wait on a FIFO, a link that is stored, an overwritten description, a half event, lost sources.
TEST_F(CommitTest, ASourceThatCannotBeStoredLeavesEverythingAsItWas) {
  const auto good = MakeSources();
  ASSERT_EQ(mkfifo((m_ram + "fifo").c_str(), 0600), 0);
  std::filesystem::create_symlink(good[0].path, m_ram + "link");
  std::filesystem::create_directories(m_ram + "directory/gps_1.dat");
  MakeSource("", "event.json", "{}");
  MakeSource("", ".hidden", "x");
  const std::string before = List(m_ram);
  const std::map<std::string, std::string> reasons{
      {"none", "No such file"},    {"fifo", "no regular file"},       {"link", "symbolic links"},
      {"directory", "no regular"}, {"event.json", "have this name"},  {".hidden", "this name"},
      {"", "this name"},           {"directory/gps_1.dat", "another"}};
  for (const auto& [name, reason] : reasons) {
    EventWriter writer(m_events);
    EXPECT_FALSE(Commit(writer, {good[0], good[1], {"Other", m_ram + name}})) << name;
    EXPECT_NE(m_problem.find(m_ram + name + ": "), std::string::npos) << m_problem;
    EXPECT_NE(m_problem.find(reason), std::string::npos) << name << ": " << m_problem;
    EXPECT_TRUE(!std::filesystem::exists(m_events) || List(m_events).empty()) << name;
    EXPECT_EQ(List(m_ram), before);
  }
}

// A short write that is taken for success; an event directory that keeps the disk full.
TEST_F(CommitTest, AFullDiskIsReportedAndTheNextCommitSucceedsWhenThereIsRoom) {
  std::filesystem::create_directory(m_events);
  if (mount("tmpfs", m_events.c_str(), "tmpfs", 0, "size=6m") != 0) GTEST_SKIP() << "nothing can be mounted";
  std::ofstream(m_events + "/hog") << std::string(2'000'000, 'h');
  EventWriter writer(m_events);
  const auto sources = MakeSources();
  EXPECT_FALSE(Commit(writer, sources));
  EXPECT_NE(m_problem.find("video1_1.mp4: No space left"), std::string::npos) << m_problem;
  EXPECT_EQ(List(m_events), "hog ");
  EXPECT_EQ(List(m_ram), "gps_1.dat video1_1.mp4 ");
  std::filesystem::remove(m_events + "/hog");
  EXPECT_TRUE(Commit(writer, sources)) << m_problem;
  ExpectWholeEvent(m_eventDir);
  umount(m_events.c_str());
}

// A disk that is put in the place of another while the recorder runs, and that two of them then write to.
TEST_F(CommitTest, ADiskThatIsPutInItsPlaceIsLockedToo) {
  EventStore store(m_events, {});
  ASSERT_TRUE(store.Open(m_problem)) << m_problem;
  if (mount("tmpfs", m_events.c_str(), "tmpfs", 0, "size=16m") != 0) GTEST_SKIP() << "nothing can be mounted";
  m_event = MakeEvent("9f3ca1b2");
  EXPECT_EQ(store.Save(m_event, MakeSources(), false, m_eventDir, m_problem), SaveResult::Saved) << m_problem;
  EXPECT_EQ(List(m_events), std::string(".lock ") + Name + " ");
  EXPECT_FALSE(EventStore(m_events, {}).Open(m_problem));
  // The store still has its lock there.
  umount2(m_events.c_str(), MNT_DETACH);
}

// An event in the place of another; an id that is a path.
TEST_F(CommitTest, AnIdThatIsNoneOrTakenIsReplaced) {
  EventWriter writer(m_events);
  std::set<std::string> dirs;
  for (const char* id : {"9f3ca1b2", "9f3ca1b2", "", "../../xx", "9F3CA1B3"}) {
    ASSERT_TRUE(Commit(writer, MakeSources(), id)) << m_problem;
    EXPECT_EQ(m_eventDir, m_events + "/" + BuildEventDirName(m_event));
    EXPECT_EQ(ReadEvent(m_eventDir, m_problem)->id, m_event.id) << m_problem;
    dirs.insert(m_eventDir);
  }
  EXPECT_EQ(dirs.size(), 5U);
  EXPECT_TRUE(dirs.contains(m_events + "/" + Name));
}

// Two writers in one directory; a clean-up that takes what is not the store's, or what somebody has protected.
TEST_F(CommitTest, OneProcessOwnsTheDirectoryAndCleansUpItsOwnOnly) {
  const std::string other = "20261121T134006Z_00000001";
  for (const auto& dir :
       {std::string(".new_") + Name, std::string(".old_") + Name, std::string(".new_photos"), ".old_" + other}) {
    std::filesystem::create_directories(m_events + "/" + dir + "/x");
  }
  std::ofstream(m_events + "/.old_" + other + "/protected").close();
  EventStore store(m_events, {});
  {
    EventStore first(m_events, {});
    ASSERT_TRUE(first.Open(m_problem)) << m_problem;
    EXPECT_EQ(List(m_events), ".lock .new_photos " + other + " ");
    EXPECT_FALSE(store.Open(m_problem));
    EXPECT_EQ(m_problem, "the directory " + m_events + " is in use by another process");
  }
  EXPECT_TRUE(store.Open(m_problem)) << m_problem;
}

}  // namespace
}  // namespace Tavi::EventStore
