// tavi-ctl as a user runs it: what it asks for, what it prints where, and its exit status.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "Control/Served.h"
#include "EventStore/EventWriter.h"
#include "EventStore/LaterLabel.h"

namespace {

using namespace Tavi::Recorder;
using namespace Tavi::EventStore;
using testing::HasSubstr;

class CtlProgramTest : public Tavi::Testing::TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    std::string problem;
    ASSERT_TRUE(m_server.Open(m_dir + "c.sock", problem)) << problem;
  }
  /// The exit status; what it printed is in m_out and m_err.
  int Run(const std::string& arguments, const std::string& prefix = "") {
    const int status = std::system(
        (prefix + CTL_PROGRAM " --control " + m_dir + "c.sock " + arguments + " >" + m_dir + "out 2>" + m_dir + "err")
            .c_str());
    m_out = Tavi::Testing::ReadFile(m_dir + "out");
    m_err = Tavi::Testing::ReadFile(m_dir + "err");
    return WEXITSTATUS(status);
  }

  Tavi::Testing::TestHandler m_handler;
  ControlServer m_server{m_handler};
  std::string m_out;
  std::string m_err;
};

TEST_F(CtlProgramTest, PrintsRepliesForPeopleAndForPrograms) {
  const std::pair<const char*, const char*> cases[] = {
      {"status", "camera0.fps   30\ncamera0.tags  a, ü\nfree          -\nevents.0.id   a\n"},
      {"metrics", "tavi_events_total 3\n"},
      {"metrics --json", "{\"ok\":true,\"text\":\"tavi_events_total 3\\n\"}\n"},
      {"event --before 5 --duration 0 --preview --label 'a b' --wait --json",
       R"({"ok":true,"command":"event","beforeSeconds":5,"durationSeconds":0,"preview":true,"label":"a b","keep":false,"wait":true})"
       "\n"},
      {"--json ignition off", "{\"ok\":true,\"command\":\"ignition\",\"on\":false}\n"},
      {"protect 9f3ca1b2 --off --json",
       "{\"ok\":true,\"command\":\"protect\",\"event\":\"9f3ca1b2\",\"protected\":false}\n"},
  };
  for (const auto& [arguments, out] : cases) {
    EXPECT_EQ(Run(arguments), 0) << m_err;
    EXPECT_EQ(m_out, out) << arguments;
  }
}

TEST_F(CtlProgramTest, ItsExitStatusTellsWhatWentWrong) {
  const std::string recorder = "tavi-ctl: no recorder answers at " + m_dir;
  Tavi::Testing::LeaveStaleSocket(m_dir + "dead");
  const std::tuple<std::string, int, std::string> cases[] = {
      {"power-fail", 1, "tavi-ctl: the power is?[31m fine\n"},
      {"", 2, "subcommand"},
      {"event --before 32", 2, "tavi-ctl: --before: \"32\" is no whole number from 0 to 31\n"},
      {"event --label \"$(printf '\\377')\"", 2, "--label: it is no UTF-8"},
      {"protect ../..", 2, "\"../..\" is no event's id"},
      {"remove 9f3ca1b2 </dev/null", 2, "give --yes"},
      {"events --events " + m_dir + "none", 2, "none\" is no directory"},
      {"ignition", 2, "STATE"},
      {"--control " + std::string(108, 'x') + " status", 2, "has 108 bytes"},
      {"--connect 0 --control " + m_dir + "none status", 3,
       recorder + "none: there is no such socket; is the recorder running?\n"},
      {"--connect 0.1 --control " + m_dir + "dead status", 3, recorder + "dead: nobody listens there any more"},
      {"stop --timeout 0.2", 3, recorder + "c.sock: it does not answer in time\n"},
  };
  for (const auto& [arguments, status, err] : cases) {
    EXPECT_EQ(Run(arguments), status) << arguments << m_err;
    EXPECT_THAT(m_err, HasSubstr(err));
    EXPECT_EQ(std::count(m_err.begin(), m_err.end(), '\n'), 1) << m_err;
    EXPECT_EQ(m_out, "");
  }
  EXPECT_EQ(Run("stop --timeout 60", "timeout -s INT 0.5 "), 124) << "an interrupt ends the waiting";
}

// Catches a script whose second line comes before the first one's recorder, and an event that waits for room and is
// taken for one that is lost, or for one that is saved.
TEST_F(CtlProgramTest, WaitsForARecorderAndTellsWhatAnEventWaitsFor) {
  ControlServer late(m_handler);
  std::thread starting([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    std::string problem;
    EXPECT_TRUE(late.Open(m_dir + "late/socket", problem)) << problem;
  });
  EXPECT_EQ(Run("--control " + m_dir + "late/socket metrics"), 0) << m_err;
  starting.join();
  m_handler.SetReply("event", {{"ok", false}, {"saved", false}, {"waits", true}, {"error", "it waits"}});
  EXPECT_EQ(Run("event --wait"), 4);
  EXPECT_EQ(m_out + m_err, "tavi-ctl: it waits\n");
  m_handler.SetReply("event", {{"ok", false}, {"saved", true}, {"directory", "/d"}, {"error", "not whole"}});
  EXPECT_EQ(Run("event --wait"), 5);
  EXPECT_EQ(m_out + m_err, "saved      yes\ndirectory  /d\ntavi-ctl: not whole\n");
}

class CtlEventsTest : public CtlProgramTest {
 protected:
  void SetUp() override {
    CtlProgramTest::SetUp();
    m_handler.SetReply("status", {{"storage", {{"eventsDir", m_dir + "events/"}}}});
    EventDescription event;
    event.timeSource = ReceiverSource;
    event.missing = {{"VideoCamera0", 3.21, "begins late"}, {"Preview", 0.0, "it could not be made"}};
    AddEvent(event, "9f3ca1b2", "Tür", false);
    event.missing.clear();
    event.timeSource = SystemSource;
    event.interrupted = true;
    event.streams = {{"Gps", 6, 1.0, -4.0, 1.0, {}, {}}};
    AddEvent(event, "9f000000", "a\tb", true);
  }
  void AddEvent(EventDescription event, const std::string& id, const std::string& label, bool isProtected) {
    event.id = id;
    event.label = label;
    event.timeMs = 1'795'268'405'123;
    std::ofstream(m_dir + "gps.dat") << std::string(100'000, '\0');
    std::string directory;
    std::string problem;
    ASSERT_TRUE(
        EventWriter(m_dir + "events").Commit(event, {{"Gps", m_dir + "gps.dat"}}, isProtected, directory, problem))
        << problem;
  }
};

// Catches an event that is listed under another's name, a word that means two of them, and columns that tell another
// length than there is.
TEST_F(CtlEventsTest, EventsAreListedShownAndMeantByTheirFirstDigits) {
  const std::string table =
      "event     time (UTC)             trigger  length     size    protected  missing                 label\n"
      "9f3ca1b2  2026-11-21 13:40:05    request  30 s       101 kB  no         camera1 3.2 s, preview  Tür\n"
      "9f000000  2026-11-21 13:40:05 ?  request  5 of 30 s  101 kB  yes        -                       a?b\n";
  EXPECT_EQ(Run("events"), 0) << m_err;
  EXPECT_EQ(m_out, table);
  EXPECT_EQ(Run("--control " + m_dir + "none events --events " + m_dir + "events"), 0) << m_err;
  EXPECT_EQ(m_out, table) << "without a recorder";
  EXPECT_EQ(Run("events --json"), 0);
  EXPECT_EQ(nlohmann::json::parse(m_out)["events"][0]["missing"][0]["seconds"], 3.21);
  EXPECT_EQ(Run("show last 9f3"), 0) << m_err;
  EXPECT_THAT(m_out, testing::ContainsRegex(
                         "^event +9f000000\n(.*\n)+\nevent +9f3ca1b2\n(.*\n)+missing +camera1: begins late"));
  EXPECT_EQ(Run("show 9f0 --json"), 0);
  EXPECT_EQ(nlohmann::json::parse(m_out)["description"]["label"], "a\tb");
  for (const auto& [word, said] :
       {std::pair("9f", "may be 9f3ca1b2 or 9f000000"), std::pair("a", "there is no event a in")}) {
    EXPECT_EQ(Run(std::string("show ") + word), 1);
    EXPECT_THAT(m_err, HasSubstr(said));
  }
  EXPECT_EQ(Run("protect last --json"), 0) << m_err;
  EXPECT_THAT(m_out, HasSubstr(R"("event":"9f000000","protected":true)"));
  EXPECT_EQ(Run("label 9f3 'my words' --json"), 0) << m_err;
  EXPECT_EQ(m_out, "{\"ok\":true,\"command\":\"label\",\"event\":\"9f3ca1b2\",\"label\":\"my words\"}\n");
  std::string problem;
  ASSERT_TRUE(SetLaterLabel(m_dir + "events", "9f3ca1b2", "dent\x1B", problem)) << problem;
  EXPECT_EQ(Run("events"), 0);
  EXPECT_THAT(m_out, HasSubstr("preview  Tür (written later: dent?)\n"));
  EXPECT_EQ(Run("show 9f3"), 0);
  EXPECT_THAT(m_out, HasSubstr("written later  dent?\n"));
  EXPECT_EQ(Run("remove 9f3 last --yes --json"), 0) << m_err;
  EXPECT_EQ(m_out,
            "{\"ok\":true,\"command\":\"remove\",\"event\":\"9f3ca1b2\",\"evenProtected\":false}\n"
            "{\"ok\":true,\"command\":\"remove\",\"event\":\"9f000000\",\"evenProtected\":false}\n");
}

// Catches an export that leaves out a format or writes into the event, and a question that is answered without a yes.
TEST_F(CtlEventsTest, EventsAreExportedAndRemovedAfterAYes) {
  namespace fs = std::filesystem;
  EXPECT_EQ(Run("export 9f3 last --output " + m_dir + "out1 --gpx --files"), 0) << m_err;
  EXPECT_TRUE(fs::exists(m_dir + "out1/20261121T134005Z_9f3ca1b2.gpx"));
  EXPECT_TRUE(fs::exists(m_dir + "out1/20261121T134005Z_9f000000/event.json"));
  EXPECT_FALSE(fs::exists(m_dir + "out1/20261121T134005Z_9f3ca1b2.csv"));
  Run("export last --output " + m_dir + "out2");
  EXPECT_EQ(std::distance(fs::directory_iterator(m_dir + "out2"), fs::directory_iterator()), 4);
  EXPECT_EQ(Run("export last --output " + m_dir + "events/20261121T134005Z_9f3ca1b2"), 2);
  EXPECT_THAT(m_err, HasSubstr("belongs to the event"));
  const int before = m_handler.handled;
  const std::string onTerminal =
      "script -qec '" CTL_PROGRAM " --control " + m_dir + "c.sock remove 9f3ca1b2' /dev/null";
  EXPECT_EQ(std::system(("echo n | " + onTerminal + " >" + m_dir + "out").c_str()), 0);
  EXPECT_THAT(Tavi::Testing::ReadFile(m_dir + "out"),
              HasSubstr("Remove event 9f3ca1b2 of 2026-11-21 13:40:05 (request, \"Tür\""));
  EXPECT_EQ(m_handler.handled, before + 1) << "the status is all that was asked for";
  EXPECT_EQ(std::system(("echo y | " + onTerminal + " >" + m_dir + "out").c_str()), 0);
  EXPECT_EQ(m_handler.handled, before + 3);
}

}  // namespace
