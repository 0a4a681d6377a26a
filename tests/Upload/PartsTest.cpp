// The parts of the upload for themselves: rclone's life, the settings, what others are told, NetworkManager's word.
#include <sys/socket.h>
#include <systemd/sd-bus.h>

#include <thread>

#include "Fleet/Upload/ChildProcess.h"
#include "Fleet/Upload/Metered.h"
#include "Fleet/Upload/StatusFile.h"
#include "Upload/UploadFixture.h"

namespace Tavi::Upload {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;
using namespace std::chrono_literals;

class PartsTest : public Testing::TempDirTest {
 protected:
  /// Whether a process with this word in its command line is there.
  static bool IsRunning(const std::string& word) {
    return std::system(("pgrep -f '^sleep " + word + "' > /dev/null").c_str()) == 0;
  }
};

// Catches an upload that hangs with its rclone, an rclone that outlives it, and a reason that is somebody else's.
TEST_F(PartsTest, AChildEndsInTimeWithItsWholeGroupAndItsLastLineIsTheReason) {
  const StopSignal stop;
  EXPECT_EQ(RunChild({{"sh", "-c", "cat; echo oh no >&2; echo >&2; exit 3"}, "text", 60s}, stop).output, "text");
  const auto failed = RunChild({{"sh", "-c", "echo first >&2; echo oh no >&2; echo >&2; exit 3"}, "", 60s}, stop);
  EXPECT_EQ(failed.status, 3);
  EXPECT_EQ(failed.problem, "oh no");
  const auto missing = RunChild({{m_dir + "none"}, "", 60s}, stop);
  EXPECT_THAT(missing.problem, HasSubstr("is it installed?"));
  const auto flood = RunChild({{"sh", "-c", "yes"}, "", 60s}, stop);
  EXPECT_EQ(flood.problem, "it says too much");

  const auto late = RunChild({{"sh", "-c", "sleep 4242 & sleep 4242"}, "", 300ms}, stop);
  EXPECT_FALSE(late.hasEnded);
  EXPECT_THAT(late.problem, StartsWith("it took longer than"));
  EXPECT_TRUE(Testing::WaitUntil([] { return !IsRunning("4242"); })) << "the grandchild lives on";

  raise(SIGTERM);  // as if it came to the process: other threads of a test have not masked it
  const auto stopped = RunChild({{"sleep", "4343"}, "", 600s}, stop);
  EXPECT_EQ(stopped.problem, "it was told to end");
  EXPECT_FALSE(IsRunning("4343"));
}

TEST_F(PartsTest, AnRcloneErrorLosesItsTimeAndItsFrame) {
  EXPECT_EQ(
      GetLastLine("2026/11/22 12:00:00 ERROR : a: b\n2026/11/22 12:00:01 Failed to copy with 2 errors: last error "
                  "was: 507 Insufficient Storage\n\n"),
      "507 Insufficient Storage");
  EXPECT_EQ(GetLastLine("\n \n"), "");
  EXPECT_EQ(GetLastLine(std::string(5000, 'x')).size(), 300U);
}

// A mistake that starts an upload to nowhere, or to the working directory of whoever starts it.
TEST_F(PartsTest, WrongSettingsAreToldWithTheirFieldAndTheDocumentHasAllOfThem) {
  const struct {
    std::string text, expected;
  } cases[] = {
      {"{}", "field remote: it is empty, a remote of rclone's"},
      {"{\"remote\":\"bucket/unit\"}", m_dir + "s:1: field remote: \"bucket/unit\" is not possible, a remote"},
      {"{\"remote\":\"-x:\"}", m_dir + "s:1: field remote: "},
      {"{\"remote\":\"a:b\",\n\"metered\":\"perhaps\"}", m_dir + "s:2: field metered: "},
      {"{\"remote\":\"a:b\",\"retryFirstSeconds\":700}", "field retryFirstSeconds: 700 is more than the 600"},
      {"{\"remote\":\"a:b\",\"eventDir\":\"/x\"}",
       m_dir + "s:1: field eventDir: unknown, the nearest name is eventsDir"},
  };
  for (const auto& c : cases) {
    std::ofstream(m_dir + "s") << c.text;
    UploadSettings settings;
    std::string problem;
    if (LoadSettings(m_dir + "s", settings, problem)) problem = CheckSettings(settings);
    EXPECT_THAT(problem, StartsWith(c.expected)) << c.text;
  }
  const std::string document = ReadFile(UPLOAD_DOCUMENT);
  EXPECT_THAT(document, HasSubstr(FormatFieldTable()));
  UploadStatus told;
  told.metered = true;
  std::istringstream lines(FormatMetrics(told));
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("#")) continue;
    EXPECT_THAT(document, HasSubstr("| `" + line.substr(0, line.find(' ')) + "` |"));
  }
  const auto status = Kbase::Json::Parse(FormatStatus({}));
  for (const auto& [name, value] : status.items()) EXPECT_THAT(document, HasSubstr("`" + name + "`"));
}

/// NetworkManager as far as it is asked: a bus of two, this one and the asker.
void ServeNetworkManager(int listener, std::uint32_t word) {
  const int peer = ::accept(listener, nullptr, nullptr);
  sd_bus* bus = nullptr;
  sd_id128_t id{};
  sd_bus_new(&bus);
  sd_bus_set_fd(bus, peer, peer);
  sd_bus_set_server(bus, 1, id);
  sd_bus_set_anonymous(bus, 1);
  sd_bus_start(bus);
  bool isAnswered = false;
  while (!isAnswered) {
    sd_bus_message* message = nullptr;
    if (sd_bus_process(bus, &message) < 0) break;
    if (message != nullptr && sd_bus_message_is_method_call(message, nullptr, "Hello") > 0) {
      sd_bus_reply_method_return(message, "s", ":1.1");
    } else if (message != nullptr && sd_bus_message_is_method_call(message, nullptr, "Get") > 0) {
      isAnswered = sd_bus_reply_method_return(message, "v", "u", word) >= 0;
    } else {
      sd_bus_wait(bus, 100'000);
    }
    sd_bus_message_unref(message);
  }
  sd_bus_flush_close_unref(bus);
}

// Catches a guess of NetworkManager's taken for nothing, and a bus without one taken for a free network.
TEST_F(PartsTest, NetworkManagersWordCountsAndWithoutOneNothingIsKnown) {
  const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(Testing::OnSocket(::bind, listener, m_dir + "bus"), 0);
  ASSERT_EQ(::listen(listener, 4), 0);
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + m_dir + "bus").c_str(), 1);
  const std::optional<bool> expected[] = {std::nullopt, true, false, true, false, std::nullopt};
  for (std::uint32_t word = 0; word < 6; ++word) {
    std::thread manager(ServeNetworkManager, listener, word);
    EXPECT_EQ(AskNetworkManager(), expected[word]) << word;
    manager.join();
  }
  ::close(listener);
  EXPECT_EQ(AskNetworkManager(), std::nullopt);
  ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
  EXPECT_EQ(Metered("yes").Get(), true);
}

}  // namespace
}  // namespace Tavi::Upload
