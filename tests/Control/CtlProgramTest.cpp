// tavi-ctl as a user runs it: what it asks for, what it prints where, and its exit status.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>

#include "Control/Served.h"

namespace {

using namespace Tavi::Recorder;
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
      {"events", "id        label  files  kept\n9f3ca1b2  Tür    2      -\n1         -      -      yes\n"},
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
      {"ignition", 2, "state"},
      {"--control " + std::string(108, 'x') + " status", 2, "has 108 bytes"},
      {"--control " + m_dir + "none status", 3, recorder + "none: there is no such socket; is the recorder running?\n"},
      {"--control " + m_dir + "dead status", 3, recorder + "dead: nobody listens there any more"},
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

}  // namespace
