// Events on their way to a far side: what goes when, what is believed, what is tried again, and what is removed here.
#include "Upload/UploadFixture.h"

namespace Tavi::Upload {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

constexpr const char* NoHashes = R"([ "$1" = backend ] && { echo '{"Hashes":[]}'; rm $list; exit 0; })";
constexpr const char* Md5Only = R"([ "$1" = backend ] && { echo '{"Hashes":["md5"]}'; rm $list; exit 0; })";

// Catches clips that hold up what tells of them, streams that cost on a metered network, and half an event that says it
// is whole.
TEST_F(UploadTest, SmallFilesGoFirstThenClipsThenStreamsAndLastWhatSaysThatItIsWhole) {
  const std::string event = Save(1);
  m_settings.metered = "yes";
  EXPECT_TRUE(Once()) << GetLog();
  EXPECT_EQ(GetChanges(),
            "copy event.json event.json.sig gps.dat index.html still.jpg\ncopy video1.mp4\nrcat complete.json\n");
  auto whole = Kbase::Json::Parse(Far(event, "complete.json"));
  EXPECT_EQ(whole["event"], event);
  EXPECT_EQ(whole["withheld"], Kbase::Json::Object({"video1.h264", "video1.times"}));
  EXPECT_EQ(whole["files"].size(), 6U);
  EXPECT_EQ(GetStatus()["withheld"], 1);
  EXPECT_EQ(GetStatus()["metered"], true);

  m_settings.metered = "no";
  EXPECT_TRUE(Once()) << GetLog();
  EXPECT_EQ(GetChanges(), "copy video1.h264 video1.times\nrcat complete.json\n") << "nothing twice";
  whole = Kbase::Json::Parse(Far(event, "complete.json"));
  EXPECT_TRUE(whole["withheld"].empty());
  for (const auto& file : whole["files"]) {
    const std::string content = Far(event, file["name"]);
    EXPECT_EQ(content, ReadFile(m_events + "/" + event + "/" + file["name"].get<std::string>()));
    EXPECT_EQ(file["sha256"], HashText(content, HashType::Sha256));
  }
  EXPECT_EQ(GetStatus()["sent"], 1) << "the streams do not make it another event";
  EXPECT_TRUE(Once());
  EXPECT_EQ(ReadFile(m_dir + "asked"), "") << "what is remembered is not asked for";
}

// Catches a proof by size, or by the word of the program that sent. The far side tells SHA-256, MD5 or nothing.
TEST_F(UploadTest, WhatArrivesWrongIsSentAgainAndNeverCalledWhole) {
  const std::string spoil =
      "[ $1 = copy ] && [ -e $far/*/video1.mp4 ] && printf '#' | dd of=$(echo $far/*/video1.mp4) conv=notrunc "
      "2>/dev/null";
  m_settings.attempts = 1;
  Save(1);
  for (const auto* tells : {"", Md5Only, NoHashes}) {
    std::filesystem::remove_all(m_dir + "far");
    std::filesystem::remove_all(m_dir + "state");
    Wrap(tells, spoil);
    EXPECT_FALSE(Once()) << tells;
    EXPECT_THAT(GetStatus()["lastError"], HasSubstr("video1.mp4 the first")) << tells;
    EXPECT_THAT(GetChanges(), Not(HasSubstr("rcat"))) << tells;
    EXPECT_THAT(GetChanges(), HasSubstr("\ncopy video1.mp4\n")) << "only what is wrong is sent again: " << tells;
  }
  Wrap(NoHashes);
  EXPECT_TRUE(Once()) << GetLog();
  m_settings.readBackMiB = 0;
  std::filesystem::remove_all(m_dir + "state");
  Wrap(NoHashes);
  EXPECT_FALSE(Once());
  EXPECT_THAT(GetStatus()["lastError"], HasSubstr("readBackMiB"));
}

// Catches a damaged event that goes out as a good one, or that holds up the others.
TEST_F(UploadTest, ADamagedEventIsToldAndLeftAndTheOthersGo) {
  const std::string damaged = Save(1);
  const std::string good = Save(2);
  std::fstream(m_events + "/" + damaged + "/video1.mp4", std::ios::in | std::ios::out).put('#');
  EXPECT_FALSE(Once());
  EXPECT_EQ(CountLogged(damaged + " is damaged and not sent: changed: video1.mp4"), 1) << GetLog();
  EXPECT_FALSE(std::filesystem::exists(m_dir + "far/" + damaged));
  EXPECT_THAT(Far(good, "complete.json"), HasSubstr(good));
  EXPECT_EQ(GetStatus()["damaged"], 1);
  EXPECT_EQ(GetStatus()["waiting"], 0);
}

// Catches one event that nobody can take and for which all others wait, and a reason that nobody is told.
TEST_F(UploadTest, AnEventThatFailsStandsBehindTheOthersAndTheReasonIsRclones) {
  const std::string refused = Save(1);
  const std::string other = Save(2);
  Wrap("case \"$*\" in copy*" + refused +
       "*) echo '2026/11/22 12:00:00 ERROR : x: Failed to copy: 507 Insufficient\033 Storage' >&2; rm $list; exit 1 ;; "
       "esac");
  EXPECT_FALSE(Once());
  EXPECT_THAT(Far(other, "complete.json"), HasSubstr(other));
  EXPECT_EQ(CountLogged(refused + ": x: Failed to copy: 507 Insufficient? Storage; once more in 0.1 s"), 2) << GetLog();
  const auto status = GetStatus();
  EXPECT_EQ(status["waiting"], 1);
  EXPECT_EQ(status["failed"], 2);
  EXPECT_EQ(status["sent"], 1);
  Wrap("");
  EXPECT_TRUE(Once());
  EXPECT_THAT(Far(refused, "complete.json"), HasSubstr(refused));
}

// Catches a state that is believed more than the far side, two at once, and an event that is half there for ever
// without a word.
TEST_F(UploadTest, TheFarSideIsAskedWhatTheStateDoesNotKnow) {
  const std::string event = Save(1);
  ASSERT_TRUE(Once()) << GetLog();
  std::ofstream(m_dir + "state/state.json") << "{\"events\":";
  EXPECT_TRUE(Once());
  EXPECT_EQ(GetChanges(), "") << "what is there is not sent again";
  EXPECT_EQ(CountLogged("is forgotten, the far side is asked"), 1);

  std::filesystem::resize_file(m_dir + "far/" + event + "/video1.mp4", 5);
  std::filesystem::remove(m_dir + "state/state.json");
  Wrap("[ $1 = copy ] && [ -e $far/" + event + "/complete.json ] && touch " + m_dir + "lie");
  EXPECT_TRUE(Once());
  EXPECT_EQ(GetChanges(), "copy video1.mp4\nrcat complete.json\n");
  EXPECT_FALSE(std::filesystem::exists(m_dir + "lie")) << "it said it was whole while files were replaced";

  const std::string half = Save(2);
  Wrap("[ $1 = copy ] && grep -q mp4 $list && { rm -r " + m_events + "/" + half + " $list; exit 1; }");
  static_cast<void>(Once());
  EXPECT_TRUE(Once());
  EXPECT_THAT(Far(half, "partial.json"), HasSubstr("removed on the unit"));
  EXPECT_EQ(Far(half, "complete.json"), "");
  EXPECT_EQ(GetStatus()["waiting"], 0);

  UploadState holder;
  ASSERT_TRUE(holder.Open(m_settings.stateDir, m_settings.remote, m_problem));
  UploadState other;
  EXPECT_FALSE(other.Open(m_settings.stateDir, m_settings.remote, m_problem));
  EXPECT_THAT(m_problem, StartsWith("another tavi-upload"));
}

/// Removes from the store what it is asked to, as the recorder does.
class Remover final : public Recorder::ControlHandler {
 public:
  explicit Remover(EventStore::EventStore& store) : m_store(store) {}
  void Handle(const nlohmann::ordered_json& request, Recorder::Reply reply) override {
    std::string problem;
    const auto wanted = Recorder::ParseRemoveRequest(request, problem);
    if (wanted && m_store.Remove(wanted->event, wanted->evenProtected, problem)) return reply(request);
    reply.Refuse(problem);
  }

 private:
  EventStore::EventStore& m_store;
};

// Catches the only copy removed: of what is not right on the far side any more, is protected, or was withheld.
TEST_F(UploadTest, OnlyWhatIsProvenOnTheFarSideIsRemovedHereByTheRecorder) {
  m_settings.deleteAfter = true;
  const std::string kept = Save(1, true);
  const std::string spoilt = Save(2);
  EXPECT_FALSE(Once()) << "no recorder answers";
  EXPECT_THAT(GetStatus()["lastError"], StartsWith(spoilt + " stays here: "));
  Spoil(spoilt, "still.jpg");
  Remover handler(*m_store);
  Recorder::ControlServer server(handler);
  ASSERT_TRUE(server.Open(m_settings.controlSocket, m_problem)) << m_problem;
  EXPECT_TRUE(Once()) << GetLog();
  EXPECT_EQ(CountLogged(spoilt + " is no more whole on the far side, and is sent again"), 1);
  EXPECT_EQ(Far(spoilt, "still.jpg"), "still");
  EXPECT_FALSE(std::filesystem::exists(m_events + "/" + spoilt)) << GetLog();
  EXPECT_THAT(ReadFile(m_events + "/.chain"), HasSubstr("removed-on-request"));
  EXPECT_TRUE(std::filesystem::exists(m_events + "/" + kept));
  EXPECT_EQ(GetStatus()["deleted"], 1);

  m_settings.sendStreams = "never";
  const std::string withheld = Save(3);
  EXPECT_TRUE(Once());
  EXPECT_TRUE(std::filesystem::exists(m_events + "/" + withheld)) << "its streams are nowhere else";
}

}  // namespace
}  // namespace Tavi::Upload
