// The control server against clients that misbehave, come in numbers or leave, and against what a crash leaves behind.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>

#include "Control/Served.h"

namespace {

using namespace Tavi::Recorder;
using namespace Tavi::Testing;
using std::chrono::milliseconds;
using testing::HasSubstr;

constexpr const char* Status = "{\"command\":\"status\"}\n";
constexpr const char* Kept = "{\"command\":\"stop\",\"id\":\"e\"}\n";
constexpr const char* StatusReply =
    R"({"ok":true,"camera0":{"fps":30,"tags":["a","ü"]},"free":null,"events":[{"id":"a"}]})";

class ControlServerTest : public TempDirTest {
 protected:
  void Open(const ControlLimits& limits = {}) {
    m_path = m_dir + "run/tavi/control.sock";
    m_server = std::make_unique<ControlServer>(m_handler, limits);
    std::string problem;
    ASSERT_TRUE(m_server->Open(m_path, problem)) << problem;
  }
  void TearDown() override {
    m_server.reset();
    TempDirTest::TearDown();
  }
  std::string Ask(const std::string& request) const { return RawClient(m_path).Ask(request); }
  static int GetMode(const std::string& path) { return static_cast<int>(std::filesystem::status(path).permissions()); }

  TestHandler m_handler;
  std::string m_path;
  std::unique_ptr<ControlServer> m_server;
};

// Catches a broken client that takes the server, or a place in it, for good.
TEST_F(ControlServerTest, AClientThatMisbehavesIsCutOffAndHarmsNobody) {
  ControlLimits limits;
  limits.lineTime = limits.readTime = limits.idleTime = milliseconds(1000);
  Open(limits);
  const std::tuple<const char*, std::string, const char*> cases[] = {
      {"rubbish", std::string("\0\xFF\x80}{\n", 6) + Status, R"({"ok":false,"error":"the line is no request)"},
      {"half a line", "{\"comm", ""},
      {"8 MB without a line end", std::string(8'000'000, 'x'), R"({"ok":false,"error":"a request may have 65536)"},
      {"one byte too many", std::string(MaxRequestBytes, ' ') + "\n", R"({"ok":false,"error":"a request may)"},
      {"nothing at all", "", ""},
  };
  for (const auto& [fault, sent, answer] : cases) {
    RawClient bad(m_path);
    bad.Send(sent);
    EXPECT_EQ(Ask(Status), StatusReply) << fault;
    EXPECT_THAT(bad.ReadLine(), testing::StartsWith(answer)) << fault;
    EXPECT_TRUE(bad.IsCutOff()) << fault;
  }
  RawClient trickling(m_path);
  EXPECT_TRUE(WaitUntil([&] { return !trickling.Send(" "); })) << "bytes within a line are no progress";
  RawClient waiting(m_path);
  EXPECT_TRUE(waiting.Send(Kept));
  RawClient deaf(m_path);
  for (int i = 0; i < 8; ++i) deaf.Send("{\"command\":\"large\"}\n");
  EXPECT_EQ(Ask(Status), StatusReply);
  EXPECT_TRUE(WaitUntil([&] { return !deaf.Send(" "); }));
  EXPECT_LT(deaf.ReadLine().size(), LargeBytes) << "cut off within the first reply";
  EXPECT_TRUE(deaf.IsCutOff());
  ASSERT_EQ(m_handler.GetKept().size(), 1U);
  m_handler.GetKept()[0]({});
  EXPECT_EQ(waiting.ReadLine(), R"({"id":"e","ok":true})") << "no limit counts while the recorder has the next word";
}

// Catches replies that pile up without bound because many requests are answered at once.
TEST_F(ControlServerTest, UnreadRepliesAreBounded) {
  Open();
  RawClient client(m_path);
  for (int i = 0; i < 20; ++i) client.Send(Kept);
  ASSERT_TRUE(WaitUntil([&] { return m_handler.GetKept().size() == 16; }));
  EXPECT_EQ(Ask(Status), StatusReply);
  EXPECT_EQ(m_handler.GetKept().size(), 16U) << "the next is not looked at before an answer";
  const nlohmann::ordered_json large{{"text", std::string(LargeBytes, 'x')}};
  for (const auto& reply : m_handler.GetKept()) reply(large);
  EXPECT_TRUE(WaitUntil([&] { return CountLogged("it does not read its replies") == 1; }));
}

TEST_F(ControlServerTest, AnswersInOrderOfCompletionAndOnce) {
  Open();
  RawClient client(m_path);
  client.Send(std::string(Kept) +
              "{\"command\":\"status\",\"id\":7}\r\n{\"command\":\"throw\"}\n{\"command\":\"drop\"}\n");
  client.EndSending();
  EXPECT_THAT(client.ReadLine(), testing::StartsWith(R"({"id":7,"ok":true,"camera0")"));
  EXPECT_THAT(client.ReadLine(), testing::StartsWith(R"({"ok":false,"error":"the request could not be carried out)"));
  EXPECT_EQ(client.ReadLine(), R"({"ok":false,"error":"the request was dropped without an answer"})");
  const auto kept = m_handler.GetKept();
  std::thread([&] { kept[0].Refuse("no\xFF"); }).join();
  kept[0]({{"late", true}});
  EXPECT_EQ(client.ReadLine(), "{\"id\":\"e\",\"ok\":false,\"error\":\"no\xEF\xBF\xBD\"}");
  EXPECT_TRUE(client.IsCutOff()) << "it had ended its side";
  RawClient half(m_path);
  half.Send("{\"command\":\"stop\"}");
  half.EndSending();
  EXPECT_EQ(half.ReadLine(), R"({"ok":false,"error":"the request has no line end"})");
  EXPECT_EQ(m_handler.GetKept().size(), 1U) << "who died in mid-line may have wanted to say something else";
}

TEST_F(ControlServerTest, RequestsOfAClientThatLeavesAtOnceAreCarriedOut) {
  Open();
  std::string requests = Status;
  for (int i = 0; i < 20; ++i) requests += Kept;
  RawClient(m_path).Send(requests);
  ASSERT_TRUE(WaitUntil([&] { return m_handler.GetKept().size() == 20; })) << "nobody is left who could read";
  for (const auto& reply : m_handler.GetKept()) reply({{"event", 1}});  // into the void
  EXPECT_EQ(Ask(Status), StatusReply);
}

TEST_F(ControlServerTest, ServesManyOneAfterAnotherAndAtOnce) {
  Open();
  const long before = CountDescriptors();
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(Ask(Status), StatusReply) << i;
  {
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int i = 0; i < 140; ++i) {
      clients.push_back(std::make_unique<RawClient>(m_path));
      ASSERT_TRUE(clients.back()->Send(Status)) << i;
    }
    for (int i = 0; i < 128; ++i) ASSERT_EQ(clients[i]->ReadLine(), StatusReply) << i;
    EXPECT_EQ(m_handler.handled, 1128) << "the rest waits";
    clients.erase(clients.begin(), clients.begin() + 12);
    for (auto i = clients.size() - 12; i < clients.size(); ++i) EXPECT_EQ(clients[i]->ReadLine(), StatusReply) << i;
  }
  EXPECT_TRUE(WaitUntil([&] { return CountDescriptors() == before; })) << "descriptors leak";
}

TEST_F(ControlServerTest, EndsWithRequestsUnansweredAndLeavesNothing) {
  Open();
  RawClient waiting(m_path);
  RawClient stopping(m_path);
  waiting.Send(Kept);
  ASSERT_TRUE(WaitUntil([&] { return m_handler.GetKept().size() == 1; }));
  m_handler.atQuit = [this] { m_server->Cancel(); };
  EXPECT_EQ(stopping.Ask("{\"command\":\"quit\"}\n"), R"({"ok":true})") << "what was answered before the end is sent";
  m_server.reset();
  EXPECT_TRUE(waiting.IsCutOff());
  EXPECT_EQ(CountThreads("CONTROL"), 0);
  EXPECT_FALSE(std::filesystem::exists(m_path));
  m_handler.GetKept()[0]({{"late", true}});
}

TEST_F(ControlServerTest, ModesDoNotDependOnTheUmask) {
  for (const mode_t mask : {0U, 0777U}) {
    const mode_t before = umask(mask);
    Open();
    umask(before);
    EXPECT_EQ(GetMode(m_path), 0660);
    EXPECT_EQ(GetMode(m_dir + "run/tavi"), 0750);
    m_server.reset();
    std::filesystem::remove_all(m_dir + "run");
  }
}

TEST_F(ControlServerTest, TellsALivingRecorderFromWhatACrashLeft) {
  Open();
  {
    ControlServer second(m_handler);
    std::string problem;
    EXPECT_FALSE(second.Open(m_path, problem));
    EXPECT_THAT(problem, HasSubstr("another recorder listens at " + m_path));
  }
  EXPECT_EQ(Ask(Status), StatusReply) << "the second one's end has taken the first one's socket away";
  m_server.reset();
  LeaveStaleSocket(m_path);
  Open();
  EXPECT_EQ(Ask(Status), StatusReply);
}

TEST_F(ControlServerTest, APathThatCannotBeIsOneSentence) {
  std::ofstream(m_dir + "file") << "mine";
  const std::string longPath = m_dir + std::string(108 - m_dir.size(), 'x');
  const std::pair<std::string, std::string> cases[] = {
      {longPath, "has 108 bytes; give one of 1 to 107 bytes"},
      {m_dir + "file", "is there and no socket: remove it, or give another path"},
      {m_dir + "file/control.sock", "cannot create the directory " + m_dir + "file: "},
      {"/proc/none/control.sock", "cannot create the directory /proc/none: No such file"},
      {longPath.substr(0, 107), ""},
  };
  for (const auto& [path, expected] : cases) {
    ControlServer server(m_handler);
    std::string problem;
    EXPECT_EQ(server.Open(path, problem), expected.empty()) << problem;
    EXPECT_THAT(problem, HasSubstr(expected));
  }
  EXPECT_EQ(ReadFile(m_dir + "file"), "mine");
}

#ifdef SYS_setgroups32
constexpr long SetGroups = SYS_setgroups32;  // the one without takes groups of 16 bits
#else
constexpr long SetGroups = SYS_setgroups;
#endif

/// Linux 4.13 and newer do; an emulator of system calls may hand over the first group only.
bool TellsPeerGroups() {
  bool told = false;
  std::thread([&told] {
    const std::array<gid_t, 3> groups{4242, 4243, 4244};
    std::array<gid_t, 64> got{};
    socklen_t length = sizeof(got);
    std::array<int, 2> ends{};
    if (::syscall(SetGroups, groups.size(), groups.data()) != 0) return;
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) != 0) return;
    told = ::getsockopt(ends[0], SOL_SOCKET, SO_PEERGROUPS, got.data(), &length) == 0 && length == sizeof(groups);
    for (const int end : ends) ::close(end);
  }).join();
  return told;
}

TEST_F(ControlServerTest, AnotherUserIsTurnedAwayUnlessItsGroupIsServed) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  constexpr gid_t Serving = 4242;
  constexpr gid_t Other = 4243;
  const auto askAs = [this](gid_t own, const std::vector<gid_t>& groups) {
    std::string answer = "none";
    std::thread([&] {
      constexpr uid_t Nobody = 65534;
      // The system calls, unlike the functions, change this thread only.
      ASSERT_EQ(::syscall(SetGroups, groups.size(), groups.data()), 0);
      ASSERT_EQ(::syscall(SYS_setresgid, own, own, own), 0);
      ASSERT_EQ(::syscall(SYS_setresuid, Nobody, Nobody, Nobody), 0);
      RawClient client(m_path);
      client.Send(Status);  // who is turned away may be too late
      answer = client.ReadLine();
    }).join();
    return answer;
  };
  Open();
  ::chmod(m_dir.c_str(), 0777);
  for (const std::string& path : {m_dir + "run", m_dir + "run/tavi", m_path}) ::chmod(path.c_str(), 0777);
  EXPECT_EQ(askAs(Serving, {0}), R"({"ok":false,"error":"only the recorder's own user and root are served"})");
  EXPECT_EQ(m_handler.handled, 0);
  m_server.reset();
  std::filesystem::remove_all(m_dir + "run");
  m_server = std::make_unique<ControlServer>(m_handler);
  m_server->ServeGroup(Serving);
  std::string problem;
  ASSERT_TRUE(m_server->Open(m_path, problem)) << problem;
  ::chmod((m_dir + "run").c_str(), 0755);  // the group has this level, too
  EXPECT_EQ(askAs(Serving, {}), StatusReply) << "the directory or the socket is not the group's";
  const bool isTold = TellsPeerGroups();
  if (isTold) {
    EXPECT_EQ(askAs(Other, {Other, Serving}), StatusReply);
  }
  ::chmod((m_dir + "run/tavi").c_str(), 0777);
  ::chmod(m_path.c_str(), 0777);
  EXPECT_EQ(askAs(Other, {Other}),
            R"({"ok":false,"error":"only the recorder's own user, root and the group of control.group are served"})");
  EXPECT_EQ(m_handler.handled, isTold ? 2 : 1);
  if (!isTold)
    GTEST_SKIP() << "this kernel does not tell the further groups of a peer (SO_PEERGROUPS), whose check is left out";
}

}  // namespace
