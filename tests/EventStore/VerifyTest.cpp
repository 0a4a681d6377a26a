// Signed events and their chain: what was changed, added or taken away is told, and nothing else.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include "EventStore/Chain.h"
#include "EventStore/LaterLabel.h"
#include "EventStore/StoreFixture.h"
#include "EventStore/Verify.h"

namespace Tavi::EventStore {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using Strings = std::vector<std::string>;

class VerifyTest : public StoreTest {
 protected:
  void SetUp() override {
    StoreTest::SetUp();
    m_identity = Identity::LoadOrMake(m_dir + "identity.pem", m_problem);
    ASSERT_TRUE(m_identity) << m_problem;
  }
  std::unique_ptr<EventStore> OpenStore(const RetentionLimits& limits = {}) {
    auto store = std::make_unique<EventStore>(m_events, limits);
    store->SignWith(*m_identity);
    EXPECT_TRUE(store->Open(m_problem)) << m_problem;
    return store;
  }
  /// One event a second from 0 on; returns its directory.
  std::string Save(EventStore& store, int number) {
    EventDescription event = MakeEvent("0000000" + std::to_string(number), number);
    const std::vector<SourceFile> sources{MakeSource("VideoCamera1", "video1_1.mp4", std::string(300'000, 'v')),
                                          MakeSource("Acc", "acc_1.dat", "acceleration")};
    EXPECT_EQ(store.Save(event, sources, false, m_eventDir, m_problem), SaveResult::Saved) << m_problem;
    return m_eventDir;
  }
  Strings Check(const std::string& dir) {
    auto check = CheckEvent(dir, {m_identity->GetPublicKey()});
    check.findings.insert(check.findings.end(), check.added.begin(), check.added.end());
    return check.findings;
  }
  Strings CheckAll() { return CheckChain(m_events, {m_identity->GetPublicKey()}).findings; }
  static void Change(const std::string& path, std::size_t at) {
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekg(static_cast<std::streamoff>(at));
    const auto byte = static_cast<char>(file.get() ^ 1);
    file.seekp(static_cast<std::streamoff>(at));
    file.put(byte);
  }
  static void Replace(const std::string& path, const std::string& from, const std::string& to) {
    std::string text = Testing::ReadFile(path);
    ASSERT_NE(text.find(from), std::string::npos);
    std::ofstream(path) << text.replace(text.find(from), from.size(), to);
  }

  std::optional<Identity> m_identity;
};

// A byte that nobody misses, a description that is made to fit.
TEST_F(VerifyTest, WhatIsChangedMissingOrAddedInAnEventIsTold) {
  const auto store = OpenStore();
  const std::string dir = Save(*store, 1) + "/";
  EXPECT_THAT(Check(dir), IsEmpty());
  ASSERT_TRUE(store->SetProtected("00000001", true, m_problem));
  ASSERT_TRUE(SetLaterLabel(m_events, "00000001", "dented\xC3\xBC", m_problem)) << m_problem;
  EXPECT_EQ(ReadLaterLabel(dir), "dented\xC3\xBC");
  std::ofstream(dir + NewLaterLabelName) << "half writ";
  EXPECT_THAT(Check(dir), IsEmpty()) << "neither the marker nor later words are part of the evidence";

  for (const char* text : {"", "half writ", "two\nlines\n", "no UTF-8 \xC3(\n"}) {
    std::ofstream(dir + LaterLabelName) << text;
    EXPECT_EQ(ReadLaterLabel(dir), "") << text;
  }
  ASSERT_TRUE(SetLaterLabel(m_events, "00000001", "", m_problem)) << m_problem;
  EXPECT_FALSE(std::filesystem::exists(dir + LaterLabelName));

  Change(dir + "video1_1.mp4", 299'999);
  EXPECT_THAT(Check(dir), ElementsAre("changed: video1_1.mp4 (its content is another)"));
  Change(dir + "video1_1.mp4", 299'999);
  std::ofstream(dir + "acc_1.dat", std::ios::app) << "x";
  EXPECT_THAT(Check(dir), ElementsAre("changed: acc_1.dat (it has 13 bytes instead of 12)"));
  std::filesystem::remove(dir + "acc_1.dat");
  std::ofstream(dir + "more.txt") << "x";
  EXPECT_THAT(Check(dir), ElementsAre("missing: acc_1.dat", "added: more.txt"));
  std::filesystem::remove(dir + "more.txt");

  // The file that fits the changed description, as one who knows the format would do it.
  std::ofstream(dir + "acc_1.dat") << "accelerated!";
  Replace(dir + EventJsonName, HashText("acceleration"), HashText("accelerated!"));
  EXPECT_THAT(Check(dir), ElementsAre("changed: event.json (its signature is of another text)"));
  const auto other = Identity::LoadOrMake(m_dir + "other.pem", m_problem);
  Replace(dir + EventJsonName, m_identity->GetPublicKey(), other->GetPublicKey());
  std::ofstream(dir + SignatureName) << other->Sign(Testing::ReadFile(dir + EventJsonName));
  EXPECT_THAT(Check(dir), ElementsAre("changed: event.json (signed by another key, " + other->GetPublicKey() + ")"));
  std::filesystem::remove(dir + SignatureName);
  EXPECT_THAT(Check(dir), ElementsAre(std::string("missing: ") + SignatureName));
}

TEST_F(VerifyTest, AnEventThatIsTakenAwayOrSetInIsTold) {
  std::array<std::string, 5> dirs;
  {
    const auto store = OpenStore();
    for (int i = 1; i <= 4; ++i) dirs[i] = Save(*store, i);
  }
  EXPECT_THAT(CheckAll(), IsEmpty());
  const auto away = [&](int number) { std::filesystem::rename(dirs[number], m_dir + "away" + std::to_string(number)); };
  const auto back = [&](int number) { std::filesystem::rename(m_dir + "away" + std::to_string(number), dirs[number]); };
  const std::string chain = m_events + "/" + ChainName;
  const std::string whole = Testing::ReadFile(chain);

  away(2);
  EXPECT_THAT(CheckAll(), ElementsAre(HasSubstr("00000002 (number 2, which the recorder did not remove)")));
  std::filesystem::remove(chain);
  EXPECT_THAT(CheckAll(), ElementsAre(HasSubstr("missing: an event (number 2,"))) << "the next one knows of it";
  std::ofstream(chain) << whole << "2 removed " << dirs[2].substr(m_events.size() + 1) << " " << std::string(64, 'a')
                       << " " << std::string(128, 'b') << "\n";
  EXPECT_THAT(CheckAll(), ElementsAre(HasSubstr(".chain (1 lines are not the unit's)"), HasSubstr("number 2")));
  std::ofstream(chain) << whole;
  back(2);
  away(4);
  EXPECT_THAT(CheckAll(), ElementsAre(HasSubstr("00000004 (number 4, which the recorder did not remove)")));
  back(4);
  std::filesystem::copy(dirs[3], m_events + "/20261121T134009Z_00000009", std::filesystem::copy_options::recursive);
  EXPECT_THAT(CheckAll(), ElementsAre(HasSubstr("00000009 (it is "), HasSubstr("added: ")));
}

// A chain that takes the recorder's own housekeeping, or a power cut, for a theft.
TEST_F(VerifyTest, RetentionAndCutsLeaveAChainThatHolds) {
  {
    const auto store = OpenStore({0, 3, 0});
    for (int i = 1; i <= 5; ++i) Save(*store, i);
  }
  EXPECT_THAT(CheckAll(), IsEmpty());
  EXPECT_EQ(CheckChain(m_events, {}).removed, 2U);
  // Power went behind the event's name and in front of its link; and with the link half written.
  const std::string chain = m_events + "/" + ChainName;
  for (const std::size_t kept : {std::size_t{0}, std::size_t{40}}) {
    std::string text = Testing::ReadFile(chain);
    const std::size_t last = text.rfind('\n', text.size() - 2) + 1;
    std::ofstream(chain) << text.substr(0, last + kept);
    OpenStore();
    text = Testing::ReadFile(chain);
    EXPECT_EQ(CheckAll().size(), kept == 0 ? 0U : 1U) << "a cut line is told";
  }
  std::string text = Testing::ReadFile(chain);
  // A removal that was interrupted: the name is gone, the files are not.
  const std::string oldest = ListEvents(m_events).front().name;
  std::filesystem::rename(m_events + "/" + oldest, m_events + "/.old_" + oldest);
  const auto store = OpenStore();
  Save(*store, 6);
  EXPECT_EQ(CheckAll().size(), 1U) << "but for the cut line nothing is missed";
  EXPECT_EQ(store->GetSequence(), 6U);
}

// A chain in which nobody can tell that somebody had an event removed, or that takes it for a theft.
TEST_F(VerifyTest, WhatSomebodyHadRemovedIsToldAndNotMissed) {
  {
    const auto store = OpenStore();
    for (int i = 1; i <= 3; ++i) Save(*store, i);
    for (const char* id : {"00000001", "00000003"}) ASSERT_TRUE(store->Remove(id, false, m_problem)) << m_problem;
  }
  Save(*OpenStore(), 4);
  EXPECT_THAT(CheckAll(), IsEmpty());
  EXPECT_EQ(CheckChain(m_events, {}).removed, 2U);
  EXPECT_EQ(CheckChain(m_events, {}).removedOnRequest, 2U);
  Replace(m_events + "/" + ChainName, "removed-on-request", "removed");
  EXPECT_EQ(CheckAll().size(), 2U) << "one line is nobody's, and an event is missed";
}

TEST_F(VerifyTest, TheKeyIsTheOwnersAloneAndARuinedOneIsLeftAsItIs) {
  struct stat status {};
  ASSERT_EQ(stat((m_dir + "identity.pem").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
  const auto again = Identity::LoadOrMake(m_dir + "identity.pem", m_problem);
  ASSERT_TRUE(again);
  EXPECT_EQ(again->GetPublicKey(), m_identity->GetPublicKey());
  std::ofstream(m_dir + "public.pem") << "publicKey  " << again->GetPublicKey() << "\n" << again->GetPublicPem();
  EXPECT_EQ(ReadPublicKey(m_dir + "public.pem", m_problem), again->GetPublicKey());
  EXPECT_FALSE(ReadPublicKey(m_dir + "identity.pem", m_problem)) << "a private key is none to compare with";
  std::ofstream(m_dir + "ruined.pem") << "nothing";
  EXPECT_FALSE(Identity::LoadOrMake(m_dir + "ruined.pem", m_problem));
  EXPECT_THAT(m_problem, HasSubstr("ruined.pem holds no Ed25519 key"));
  EXPECT_EQ(Testing::ReadFile(m_dir + "ruined.pem"), "nothing");
}

}  // namespace
}  // namespace Tavi::EventStore
