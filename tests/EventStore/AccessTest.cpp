// Who may read an event: the same whatever the umask, the disk and the way by which a file came into it.
#include <fmt/format.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <optional>

#include "EventStore/StoreFixture.h"

namespace Tavi::EventStore {
namespace {

class AccessTest : public StoreTest {
 protected:
  /// A group that is not the process's own and that it may give files to.
  static gid_t FindOtherGroup() {
    if (geteuid() == 0) return 4242;
    std::array<gid_t, 64> groups{};
    const int count = getgroups(static_cast<int>(groups.size()), groups.data());
    for (int i = 0; i < count; ++i) {
      if (groups[i] != getegid()) return groups[i];
    }
    return getegid();
  }
  /// Every mode and group below the directory, itself included, that is not as it should be.
  static std::string FindWrong(const std::string& event, gid_t group) {
    std::string wrong;
    const auto look = [&](const std::string& path) {
      struct stat is {};
      EXPECT_EQ(lstat(path.c_str(), &is), 0) << path;
      const mode_t right = S_ISDIR(is.st_mode) ? 0750 : 0640;
      if ((is.st_mode & 07777) == right && is.st_gid == group) return;
      wrong += fmt::format("{} {:o} {}\n", path, is.st_mode & 07777, is.st_gid);
    };
    look(event);
    for (const auto& entry : std::filesystem::directory_iterator(event)) look(entry.path());
    return wrong;
  }
  bool Save(std::optional<gid_t> group) {
    EventStore store(m_events, {});
    if (group) store.ShareWith(*group);
    auto identity = Identity::LoadOrMake(m_dir + "key.pem", m_problem);
    if (identity) store.SignWith(*identity);
    EventDescription event = MakeEvent("9f3ca1b2");
    const std::vector<SourceFile> sources{MakeSource("Gps", "gps_1.dat", "abc"),
                                          MakeSource("VideoCamera1", "video1_1.mp4", std::string(3'000'000, 'v'))};
    chmod(sources[0].path.c_str(), 0666);
    return store.Open(m_problem) && store.Save(event, sources, false, m_eventDir, m_problem) == SaveResult::Saved &&
           store.SetProtected("9f3ca1b2", true, m_problem);
  }
};

// A file that everybody may read, or the viewers may not: linked, copied, written, marked, noted in the chain.
TEST_F(AccessTest, ModesAndGroupDependNeitherOnTheUmaskNorOnTheDisk) {
  const std::string shared = "/dev/shm/tavi-access-" + std::to_string(getpid()) + "/";
  const gid_t other = FindOtherGroup();
  for (const mode_t mask : {0U, 0077U}) {
    for (const std::string& ram : {m_dir + "ram/", shared}) {
      for (const std::optional<gid_t> group : {std::optional<gid_t>(), std::optional(other)}) {
        m_ram = ram;
        std::filesystem::create_directory(ram);
        const mode_t before = umask(mask);
        const bool isSaved = Save(group);
        umask(before);
        ASSERT_TRUE(isSaved) << m_problem;
        const std::string what = fmt::format("umask {:o}, from {}, group {}", mask, ram, group.value_or(getegid()));
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(m_eventDir), {}), 5) << what;
        EXPECT_EQ(FindWrong(m_eventDir, group.value_or(getegid())), "") << what;
        struct stat is {};
        for (const auto& [name, mode] : {std::pair("", 0750U), std::pair("/.chain", 0640U)}) {
          ASSERT_EQ(stat((m_events + name).c_str(), &is), 0);
          EXPECT_EQ(is.st_mode & 07777, mode) << name << ": " << what;
          EXPECT_EQ(is.st_gid, group.value_or(getegid())) << name << ": " << what;
        }
        std::filesystem::remove_all(m_events);
      }
    }
  }
  std::filesystem::remove_all(shared);
}

// Events of an older recorder that stay open to everybody, and those of before the group was named that stay closed.
TEST_F(AccessTest, EventsThatAreThereAlreadyFollowTheSettings) {
  ASSERT_TRUE(Save({})) << m_problem;
  const auto times = [&] { return std::filesystem::last_write_time(m_eventDir + "/event.json"); };
  const auto saved = times();
  chmod(m_events.c_str(), 0700);
  chmod(m_eventDir.c_str(), 0755);
  for (const char* name : {"/gps_1.dat", "/event.json"}) chmod((m_eventDir + name).c_str(), 0644);
  std::filesystem::create_directory(m_dir + "others");
  chmod((m_dir + "others").c_str(), 0755);
  std::filesystem::create_directory_symlink(m_dir + "others", m_events + "/20261121T134006Z_00000001");
  EventStore store(m_events, {});
  store.ShareWith(FindOtherGroup());
  ASSERT_TRUE(store.Open(m_problem)) << m_problem;
  EXPECT_EQ(FindWrong(m_eventDir, FindOtherGroup()), "");
  EXPECT_EQ(times(), saved) << "the order of saving is lost";
  struct stat is {};
  ASSERT_EQ(stat(m_events.c_str(), &is), 0);
  EXPECT_EQ(is.st_mode & 07777, 0750U) << "viewers cannot enter";
  EXPECT_EQ(is.st_gid, FindOtherGroup());
  ASSERT_EQ(stat((m_dir + "others").c_str(), &is), 0);
  EXPECT_EQ(is.st_mode & 07777, 0755U) << "what a link leads to is changed";
}

// An event that is lost, or a log that is full, because the recorder may not give files away.
TEST_F(AccessTest, AGroupThatIsRefusedCostsNoEventAndOneLine) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can become somebody who is in no group";
  chmod(m_dir.c_str(), 0777);
  chmod(m_ram.c_str(), 0777);
  std::thread([&] {
    constexpr uid_t Nobody = 65534;
    // The system calls, unlike the functions, change this thread only.
    ASSERT_EQ(::syscall(SYS_setgroups, 0, nullptr), 0);
    ASSERT_EQ(::syscall(SYS_setresgid, Nobody, Nobody, Nobody), 0);
    ASSERT_EQ(::syscall(SYS_setresuid, Nobody, Nobody, Nobody), 0);
    ASSERT_TRUE(Save(4242)) << m_problem;
  }).join();
  EXPECT_EQ(FindWrong(m_eventDir, 65534), "");
  EXPECT_EQ(CountLogged("not everybody who may can read the events: cannot change the group of"), 1);
}

}  // namespace
}  // namespace Tavi::EventStore
