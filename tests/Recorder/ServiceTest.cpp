// The recorder as a service, in the simulated car: from a command to an event's directory, and every way to its end.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "EventStore/EventDescription.h"
#include "Kbase/Interfaces/IThread.h"
#include "Recorder/ServiceFixture.h"
#include "Support/Nmea.h"

namespace {

using namespace Tavi::Testing;
using namespace Tavi::EventStore;
using nlohmann::json;
using namespace std::chrono_literals;
using testing::HasSubstr;

// Catches a camera whose plug is pulled in an event and that takes the recorder along, or the rest of the event, or is
// not taken up again.
TEST_F(ServiceTest, ACameraThatIsPulledCostsItsOwnPicturesOnly) {
  WriteSettings({{"withPreview", false}}, {{"camera1", {{"device", "sim:camera0@1!2000"}}}});
  StartService();
  const auto reply = Ctl("event --before 1 --duration 9 --wait");
  EXPECT_EQ(reply["ok"], false);
  EXPECT_FALSE(reply["missing"].empty()) << reply;
  for (const auto& part : reply["missing"]) {
    // A loaded machine's other camera delivers less than it should.
    if (std::string(part["reason"]).find("entries a second came") != std::string::npos) continue;
    EXPECT_EQ(part["type"], "VideoCamera0") << "the numbers cross over";
  }
  EXPECT_TRUE(WaitUntil([&] { return Ctl("status")["sources"]["camera1"]["revivals"] > 0; }));
  EXPECT_EQ(Ctl("status")["state"], "recording");
  const auto events = ReadEvents();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_GE(CountFrames(events[0], "VideoCamera1"), 135U);
  EXPECT_GT(CountFrames(events[0], "VideoCamera0"), 15U);
  EXPECT_EQ(EndService(SIGTERM), 0);
}

// Catches a window that is counted from another moment than that of the request, and requests that are lost or
// forgotten.
TEST_F(ServiceTest, ARequestBecomesADirectoryAndSoDoAThirdAtOnceAndNoFourth) {
  std::ofstream(m_dir + "zone") << "47321\n";
  WriteSettings({{"queueLength", 1}, {"withPreview", false}});
  StartService();
  ASSERT_TRUE(WaitUntil([&] { return Ctl("status")["sources"]["camera0"]["entries"] > 60; }));
  const std::string words = "event --before 2 --duration 9 --label 'a \"b\"' ";
  const std::string kept = Ctl(words + "--keep")["event"];
  ASSERT_TRUE(WaitUntil([&] { return Ctl("status")["running"].size() == 1; }));
  EXPECT_EQ(Ctl(words)["ok"], true);
  ASSERT_TRUE(WaitUntil([&] { return Ctl("status")["running"].size() == 2; }));
  EXPECT_EQ(Ctl(words)["ok"], true);
  ASSERT_TRUE(WaitUntil([&] { return Ctl("status")["running"].size() == 3; })) << "not one after another";
  EXPECT_THAT(Ctl(words)["error"], HasSubstr("too many events"));
  const auto commands = ListCommands();
  EXPECT_GE(commands.size(), 9U);
  for (const auto& command : commands) {
    const std::string begin = R"({"command":")" + command + "\"";
    EXPECT_THAT(Ask(begin + R"(,"on":false,"event":"00000000","label":"","evnt":1})"),
                HasSubstr("there is no such field"));
    EXPECT_THAT(Ask(begin + R"(,"command":")" + command + "\"}"), HasSubstr("command: it is there twice"));
  }
  std::filesystem::rename(m_dir + "log", m_dir + "log.before");
  kill(m_child, SIGHUP);
  EXPECT_TRUE(WaitUntil([&] { return ReadFile(m_dir + "log").find("SIGHUP") != std::string::npos; }));
  ASSERT_TRUE(WaitUntil([&] { return Ctl("status")["storage"]["saved"] == 3; }));
  EXPECT_EQ(Ctl("status")["state"], "recording") << "one of the refused was carried out";
  std::ofstream(m_dir + "upload.json") << R"({"bootMs":1,"waiting":3,"withheld":2,"sent":41,"failed":1,"damaged":0,)"
                                       << R"("lastError":7,"lastSent":{"event":"x","time":"then"},"metered":true})";
  const auto upload = Ctl("status")["upload"];
  EXPECT_EQ(upload["waiting"], 3);
  EXPECT_EQ(upload["lastSent"], "x");
  EXPECT_TRUE(upload["lastError"].is_null()) << "what is no text is not shown as one";
  EXPECT_GT(upload["ageSeconds"], 0.5);
  const std::string metrics = Ctl("metrics")["text"];
  EXPECT_EQ(ListMetrics(metrics, "# TYPE tavi_"), ListMetrics(ReadFile(CONTROL_DOCUMENT), "\n| `tavi_"));
  EXPECT_THAT(metrics, HasSubstr("\ntavi_temperature_celsius 47\n"));
  const std::string extra = Ctl("event --before 0 --duration 0 --wait")["event"];
  EXPECT_THAT(Ctl("remove --yes " + kept)["error"], HasSubstr("is protected"));
  EXPECT_EQ(Ctl("remove --yes " + extra)["removed"], true);
  EXPECT_EQ(EndService(SIGTERM), 0) << Err();
  EXPECT_FALSE(std::filesystem::exists(m_dir + "ctl/socket"));
  EXPECT_TRUE(std::filesystem::is_empty(m_dir + "tavi/work"));
  for (const auto& entry : ListEvents(m_dir + "tavi/events")) EXPECT_EQ(entry.isProtected, entry.id == kept);
  const auto events = ReadEvents();
  ASSERT_EQ(events.size(), 3U);
  std::multiset<std::string> managers;
  for (const auto& event : events) {
    EXPECT_EQ(event.label, "a \"b\"");
    EXPECT_TRUE(event.position && event.maxSpeedKnots && event.maxG);
    ASSERT_EQ(event.streams.size(), 6U);
    EXPECT_EQ(event.streams[1].type, "VideoCamera0");
    EXPECT_LE(event.streams[1].fromSeconds, -1.9);
    EXPECT_GE(event.streams[1].fromSeconds, -7.0) << "a loaded machine's camera has its entries later";
    EXPECT_GE(event.streams[1].toSeconds, 0.9) << "the moment is in it";
    EXPECT_EQ(CountFrames(event, "VideoCamera0"), event.streams[1].entries);
    managers.insert(event.manager);
  }
  EXPECT_EQ(managers, (std::multiset<std::string>{"first", "second", "spare"}));
}

// Catches an event that is lost when the process ends in whichever way.
TEST_F(ServiceTest, AnEventUnderWayOutlivesTheProcess) {
  std::size_t expected = 0;
  for (const int signal : {SIGINT, SIGPWR, SIGKILL}) {
    SCOPED_TRACE(signal);
    StartService();
    ASSERT_TRUE(WaitUntil([&] { return Ctl("status")["sources"]["camera0"]["entries"] > 60; }));
    const std::string id = Ctl("event --before 3 --duration 60 --keep --label 'a b'")["event"];
    ASSERT_TRUE(WaitUntil([&] { return Err().find("Free space before") != std::string::npos; }));
    std::this_thread::sleep_for(std::chrono::seconds(2));
    EXPECT_EQ(EndService(signal), signal == SIGKILL ? -1 : signal == SIGPWR ? 75 : 0) << Err();
    if (signal != SIGINT) {
      StartService();
      EXPECT_EQ(Err().find("nothing is there of the event"), std::string::npos) << Err();
      EXPECT_EQ(EndService(SIGINT), 0);
    }
    const auto events = ReadEvents();
    ASSERT_EQ(events.size(), ++expected) << Err();
    const auto& event = events.back();
    EXPECT_EQ(event.id + " " + event.trigger + " " + event.label, id + " request a b");
    EXPECT_TRUE(event.interrupted && event.position && event.maxG);
    EXPECT_TRUE(ListEvents(m_dir + "tavi/events").back().isProtected);
    EXPECT_GE(CountFrames(event, "VideoCamera1"), signal == SIGKILL ? 15U : 45U);
    ASSERT_FALSE(event.streams.empty());
    EXPECT_EQ(event.streams[0].entries, CountFrames(event, event.streams[0].type));
    EXPECT_LE(event.streams[0].fromSeconds, -1.8);
    // As if the process had died behind the event, before its note was gone.
    std::filesystem::create_directory(m_dir + "tavi/events/.request-" + id);
    std::ofstream(m_dir + "tavi/events/.request-" + id + "/event.json") << FormatEvent(event);
  }
  StartService();
  EXPECT_EQ(EndService(SIGINT), 0);
  EXPECT_EQ(Err().find("nothing is there of the event"), std::string::npos) << Err();
  for (const auto& entry : std::filesystem::directory_iterator(m_dir + "tavi/events")) {
    EXPECT_FALSE(entry.path().filename().string().starts_with(".request-")) << entry;
  }
  EXPECT_TRUE(std::filesystem::is_empty(m_dir + "tavi/power_failure"));
}

// Catches a service manager that is told too early, or that ends a healthy recorder because nobody feeds its watchdog.
TEST_F(ServiceTest, TheServiceManagerHearsOfReadinessAndFeeding) {
  const std::string path = m_dir + "notify";
  const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  sockaddr_un address{AF_UNIX, {}};
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  ASSERT_EQ(bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  setenv("NOTIFY_SOCKET", path.c_str(), 1);
  setenv("WATCHDOG_USEC", "1000000", 1);
  StartService();
  unsetenv("NOTIFY_SOCKET");
  unsetenv("WATCHDOG_USEC");
  std::string told;
  const auto listen = [&] {
    char text[256];
    for (ssize_t size; (size = recv(socket, text, sizeof(text), 0)) > 0;) told.append(text, size).append("\n");
  };
  EXPECT_GT(Ctl("status")["sources"]["camera0"]["entries"], 0) << "ready before it records";
  listen();
  EXPECT_THAT(told, HasSubstr("READY=1"));
  told.clear();
  std::this_thread::sleep_for(std::chrono::seconds(5));
  listen();
  std::size_t feedings = 0;
  for (auto at = told.find("WATCHDOG=1"); at != std::string::npos; at = told.find("WATCHDOG=1", at + 1)) ++feedings;
  EXPECT_GE(feedings, 6U) << "ten on an idle machine, five are too few: " << told;
  EXPECT_EQ(EndService(SIGTERM), 0);
  listen();
  EXPECT_THAT(told, HasSubstr("STOPPING=1"));
  close(socket);
}

/// A receiver whose time is right, with a fix from some moment on.
class RightReceiver final : public Kbase::Interfaces::IThread {
 public:
  explicit RightReceiver(const std::string& fifo) : IThread("RECEIVER"), m_fifo(fifo) {
    EXPECT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    Start();
  }
  ~RightReceiver() override { Stop(); }
  std::atomic<bool> hasFix{false};

 protected:
  void Run() override {
    // Open for reading as well: a recorder that is not there yet, or not any more, is no error.
    if (m_file < 0) m_file = open(m_fifo.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    const std::time_t now = std::time(nullptr);
    char time[16];
    char date[16];
    std::strftime(time, sizeof(time), "%H%M%S.00", gmtime(&now));
    std::strftime(date, sizeof(date), "%d%m%y", gmtime(&now));
    const std::string place = ",4807.0380,N,01131.0000,E,";
    const std::string text =
        MakeSentence(std::string("GPRMC,") + time + (hasFix ? ",A" : ",V") + place + "30.5,84.4," + date + ",,") +
        MakeSentence(std::string("GPGGA,") + time + place + "1,08,0.9,545.4,M,46.9,M,,");
    EXPECT_EQ(write(m_file, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    WaitForCancel(Milliseconds(1000));
  }
  void RunAfter() override { close(m_file); }

 private:
  const std::string m_fifo;
  int m_file = -1;
};

// Catches windows, silences and queues that are counted by the wall clock, which the first fix sets by decades, and
// events of that time that keep the wrong date.
TEST_F(ServiceTest, AClockThatIsSetInTheMiddleOfAnEventChangesNothing) {
#ifndef FAST_CLOCK
  GTEST_SKIP() << "the sanitizers define the functions of the preloaded clock themselves";
#else
  setenv("LD_PRELOAD", FAST_CLOCK, 1);
  setenv("TAVI_CLOCK_STEP", "-820540800@14", 1);  // 26 years less six days, for the first fourteen seconds
  RightReceiver receiver(m_dir + "receiver");
  std::ofstream(m_dir + "zone") << "47321\n";
  WriteSettings(json::object(), {{"gps", {{"path", m_dir + "receiver"}}}});
  const std::int64_t startMs = std::time(nullptr) * 1000;
  StartService();
  unsetenv("LD_PRELOAD");
  unsetenv("TAVI_CLOCK_STEP");
  ASSERT_TRUE(WaitUntil([&] { return Ctl("status")["sources"]["camera0"]["entries"] > 60; }));
  ASSERT_LT(Ctl("status")["uptimeSeconds"], 12.0) << "too slow to be in the middle of anything";
  EXPECT_EQ(Ctl("status")["clock"]["timeSource"], "system");
  EXPECT_EQ(Ctl("event --before 2 --duration 1 --no-preview")["timeSource"], "system");
  const json accepted = Ctl("event --before 3 --duration 17");
  EXPECT_EQ(accepted["timeSource"], "system");
  ASSERT_TRUE(WaitUntil([&] { return Ctl("status")["storage"]["saved"] == 1; }));
  receiver.hasFix = true;
  ASSERT_TRUE(WaitUntil([&] { return Ctl("status")["clock"]["timeSource"] == "receiver"; }));
  const auto isSaved = [&] { return Ctl("status")["storage"]["saved"] == 2; };
  ASSERT_TRUE(WaitUntil(isSaved) || WaitUntil(isSaved) || WaitUntil(isSaved) || WaitUntil(isSaved));
  EXPECT_EQ(Ctl("status")["lastEvent"]["event"], accepted["event"]);
  EXPECT_EQ(Ctl("status")["lastEvent"]["timeSource"], "receiver");
  EXPECT_EQ(Ctl("event --before 3 --duration 4 --wait")["saved"], true);
  const json sources = Ctl("status")["sources"];
  EXPECT_EQ(EndService(SIGTERM), 0);
  // A loaded machine is silent for seconds, the clock for decades.
  for (auto at = Err().find("silent for "); at != std::string::npos; at = Err().find("silent for ", at + 1)) {
    EXPECT_LT(std::stod(Err().substr(at + 11)), 30'000) << Err();
  }
  EXPECT_THAT(Err(), HasSubstr("[47C]")) << "the temperature is that of the zone in the settings";
  for (const char* source : {"camera0", "camera1", "audio", "gps", "acc"}) {
    EXPECT_LE(sources[source]["missed"], 1000)
        << source << ": a loaded machine misses some, the clock jumps over millions";
    EXPECT_EQ(sources[source]["restarts"], 0) << source;
  }
  const auto events = ReadEvents();
  ASSERT_EQ(events.size(), 3U);
  EXPECT_LT(events[0].timeMs, startMs - 800'000'000'000) << "its moment was over before there was a fix";
  EXPECT_FALSE(events[0].systemAheadSeconds);
  for (const auto& event : {events[1], events[2]}) {
    EXPECT_EQ(event.timeSource, "receiver");
    EXPECT_GE(event.timeMs, startMs - 2000) << "the receiver's text takes its time";
    EXPECT_LE(event.timeMs, std::time(nullptr) * 1000);
    EXPECT_NEAR(event.systemAheadSeconds.value_or(0), event.id == accepted["event"] ? -820540800.0 : 0.0, 30.0);
    for (const auto& stream : event.streams) {
      SCOPED_TRACE(stream.type);
      EXPECT_LE(stream.fromSeconds, event.startSeconds);
      EXPECT_GE(stream.toSeconds, event.startSeconds + event.durationSeconds - 0.05);
      // Cameras that do not keep their rate on a loaded machine are covered in number, too.
      if (stream.type.starts_with("Video") || stream.type == "Audio") continue;
      EXPECT_GE(stream.fromSeconds, event.startSeconds - 3);
      EXPECT_LE(stream.toSeconds, event.startSeconds + event.durationSeconds + 3);
    }
    EXPECT_NEAR(static_cast<double>(CountFrames(event, "VideoCamera0")), 30.0 * event.durationSeconds, 60.0);
  }
#endif
}

TEST_F(ServiceTest, AMistakeStartsNothing) {
  WriteSettings({{"queueLength", 0}});
  EXPECT_EQ(Wait(Spawn({"run", "--simulate", "--config", m_dir + "settings.json", "--output", m_dir + "tavi"})), 2);
  EXPECT_THAT(Err(), HasSubstr("settings.json:1: field events.queueLength: 0 "));
  EXPECT_EQ(Wait(Spawn({"run", "--simulate", "--output", "/proc/none", "--control", m_dir + "ctl/socket"})), 1);
  std::ofstream(m_dir + "settings.json") << R"({"storage":{"viewersGroup":"no-such"},"control":{"group":"a b"}})";
  EXPECT_EQ(Wait(Spawn({"run", "--check-config", "--config", m_dir + "settings.json"})), 2);
  EXPECT_THAT(Err(),
              HasSubstr(R"(field control.group: "a b" is not possible, the name of a group, or empty is right)"));
  std::ofstream(m_dir + "settings.json") << R"({"storage":{"viewersGroup":"no-such"}})";
  EXPECT_EQ(Wait(Spawn({"run", "--check-config", "--config", m_dir + "settings.json"})), 2);
  EXPECT_THAT(Err(), HasSubstr(R"(field storage.viewersGroup: "no-such" is no group of this machine, )"));
  EXPECT_EQ(Wait(Spawn({"run", "--print-config"})), 0);
  EXPECT_TRUE(json::accept(Out()));
  WriteSettings({{"queueLength", 1}});
  EXPECT_EQ(Wait(Spawn({"run", "--check-config", "--config", m_dir + "settings.json"})), 0);
  EXPECT_EQ(Out(), m_dir + "settings.json: the settings are right\n");
  EXPECT_FALSE(std::filesystem::exists(m_dir + "ctl/socket"));
}

}  // namespace
