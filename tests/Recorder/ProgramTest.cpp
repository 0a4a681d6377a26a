// The program as a user runs it: what it prints where, its exit status, and how a signal ends it.
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <csignal>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "Ksystem/System/Reboot.h"
#include "Recorder/Program.h"
#include "Support/VideoDecode.h"

namespace {

using namespace Tavi::Testing;
using testing::HasSubstr;

TEST_F(ProgramTest, PrintsOneObjectAnEventAndNothingElse) {
  const pid_t child = Spawn({"--simulate", "--collect-after", "2", "--start", "-1", "--duration", "1", "--count", "2",
                             "--json", "--output", m_dir + "events", "--fps0", "10", "--preview", "--async"});
  ASSERT_EQ(Wait(child), 0) << Err();
  std::istringstream lines(Out());
  int number = 0;
  for (std::string line; std::getline(lines, line);) {
    const auto event = nlohmann::json::parse(line);
    EXPECT_EQ(event["event"], ++number);
    EXPECT_GT(event["time"], 1'700'000'000);
    EXPECT_GE(event["collectSeconds"], 1.0) << "a window of a second after the event takes that long";
    ASSERT_EQ(event["files"].size(), 9U) << line;
    EXPECT_GT(std::filesystem::file_size(event["previewStill"].get<std::string>()), 1000U);
    for (const auto& file : event["files"]) EXPECT_GT(std::filesystem::file_size(file.get<std::string>()), 0U) << file;
    EXPECT_GE(event["maxSpeed"], 0.0);
    EXPECT_GT(event["maxG"], 0.0);
    EXPECT_EQ(Tavi::Testing::DecodeVideo(event["files"]["VideoCamera0"]).frames.size(), 31U);
    EXPECT_EQ(Tavi::Testing::DecodeVideo(event["files"]["VideoCamera1"]).frames.size(), 11U);
  }
  EXPECT_EQ(number, 2);
  EXPECT_THAT(Err(), HasSubstr("[Tavi] Aquisition for camera0 has been started"));
  EXPECT_EQ(Err().find('\r'), std::string::npos) << "no progress bar where there is no terminal";
}

// Catches a wait that passes the preloaded clock by: hours that were run with it would not have been hours.
TEST_F(ProgramTest, WithAFasterClockAnEventTakesAsLongByThatClock) {
#ifndef FAST_CLOCK
  GTEST_SKIP() << "the sanitizers define the functions of the preloaded clock themselves";
#else
  setenv("LD_PRELOAD", FAST_CLOCK, 1);
  setenv("TAVI_CLOCK_SPEED", "8", 1);
  const auto start = std::chrono::steady_clock::now();
  const pid_t child = Spawn({"--simulate", "--no-camera0", "--no-camera1", "--collect-after", "16", "--start", "-15",
                             "--duration", "30", "--json", "--output", m_dir + "events"});
  unsetenv("LD_PRELOAD");
  unsetenv("TAVI_CLOCK_SPEED");
  ASSERT_EQ(Wait(child), 0) << Err();
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  const auto event = nlohmann::json::parse(Out());
  // A second of a loaded machine is eight of these; 240 or 4 would be the fault.
  EXPECT_GE(event["collectSeconds"], 25.0);
  EXPECT_LE(event["collectSeconds"], 120.0);
  EXPECT_LT(elapsed.count(), 30.0) << "46 s by the program's clock";
  EXPECT_EQ(event["files"].size(), 4U);
  // MP3 at 64 kbit/s, to a twentieth: sound that was captured at another speed has another length.
  EXPECT_NEAR(static_cast<double>(std::filesystem::file_size(event["files"]["Audio"].get<std::string>())), 240'000.0,
              12'000.0);
#endif
}

// Catches a unit that restarts on an error without what it was collecting.
TEST_F(ProgramTest, ARestartOfTheUnitSavesTheRunningEventFirst) {
  const pid_t child = Spawn({"--simulate", "--device1", "sim:camera0@1!5000", "--collect-after", "1", "--start", "-1",
                             "--duration", "20", "--output", m_dir + "events", "--backup", m_dir + "backup"});
  EXPECT_EQ(Wait(child), Ksystem::System::RebootExitStatus) << Err();
  EXPECT_THAT(Err(), HasSubstr("the unit is to be restarted: a running event is saved, then recording ends"));
  std::uintmax_t saved = 0;
  for (const auto& file : std::filesystem::directory_iterator(m_dir + "backup/power_failure")) {
    saved += std::filesystem::file_size(file);
  }
  EXPECT_GT(saved, 200'000U);
}

TEST_F(ProgramTest, PrintsATableForPeople) {
  const pid_t child =
      Spawn({"--simulate", "--collect-after", "2", "--start", "-1", "--duration", "1", "--output", m_dir + "events"});
  ASSERT_EQ(Wait(child), 0) << Err();
  EXPECT_THAT(Out(), testing::AllOf(HasSubstr("Event 1 of "), HasSubstr("VideoCamera0"), HasSubstr("1.03 s"),
                                    HasSubstr(" kB  " + m_dir + "events/video0_")));
}

TEST_F(ProgramTest, AnInterruptEndsTheEventEarlyWithItsFiles) {
  for (const int signal : {SIGINT, SIGTERM}) {
    const pid_t child = Spawn({"--simulate", "--collect-after", "2", "--start", "-1", "--duration", "60", "--json",
                               "--log", m_dir + "log", "--output", m_dir + "events"});
    ASSERT_TRUE(Tavi::Testing::WaitUntil([&] { return Err().find("Free space before") != std::string::npos; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));  // a fix comes but once a second
    kill(child, signal);
    EXPECT_EQ(Wait(child), 0) << Err();
    EXPECT_EQ(nlohmann::json::parse(Out())["files"].size(), 8U);
  }
}

// Catches an event that is lost, or saved by one manager only, when power fails, and one that is reported twice.
TEST_F(ProgramTest, PowerThatFailsIsBridgedAndTheNextStartFinishesTheEvents) {
  const std::string output = m_dir + "events";
  pid_t child = Spawn({"--simulate", "--second-manager", "--preview", "--collect-after", "3", "--start", "-3",
                       "--duration", "60", "--json", "--log", m_dir + "log", "--output", output});
  ASSERT_TRUE(Tavi::Testing::WaitUntil([&] { return Err().find("Free space before (CR)") != std::string::npos; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(2500));
  kill(child, SIGPWR);
  const auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(Wait(child), 0) << Err();
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(20)) << "the window is a minute";
  EXPECT_THAT(Out(), HasSubstr("\"powerFailed\":true"));
  for (const std::size_t events : {2U, 0U}) {
    child = Spawn({"--simulate", "--collect-after", "60", "--json", "--output", output});
    ASSERT_TRUE(Tavi::Testing::WaitUntil([&] { return Err().find("camera0 has been started") != std::string::npos; }));
    kill(child, SIGPWR);  // without an event there is nothing to save
    EXPECT_EQ(Wait(child), 0) << Err();
    std::istringstream lines(Out());
    std::set<std::string> names;
    for (std::string line; std::getline(lines, line);) {
      const auto event = nlohmann::json::parse(line);
      names.insert(event["recovered"]);
      EXPECT_EQ(event["files"].size(), 7U) << "all but the metrics";
      EXPECT_GE(event["seconds"], 4);
      EXPECT_GE(Tavi::Testing::DecodeVideo(event["files"]["VideoCamera0"]).frames.size(), 120U);
    }
    EXPECT_EQ(names.size(), events);
  }
}

// Catches two recorders that take each other's files away.
TEST_F(ProgramTest, TwoRecordersCannotShareADirectory) {
  const std::string output = m_dir + "events";
  const pid_t first = Spawn({"--simulate", "--collect-after", "60", "--output", output});
  ASSERT_TRUE(Tavi::Testing::WaitUntil([&] { return Err().find("camera0 has been started") != std::string::npos; }));
  EXPECT_EQ(Wait(Spawn({"--simulate", "--output", m_dir + "other", "--backup", output})), 1);
  EXPECT_THAT(Err(), HasSubstr("is in use by another process"));
  EXPECT_EQ(Wait(Spawn({"run", "--simulate", "--output", output, "--control", m_dir + "ctl/socket"})), 1);
  EXPECT_THAT(Err(), HasSubstr("is in use by another process"));
  kill(first, SIGINT);
  EXPECT_EQ(Wait(first), 0);
}

// Catches an interrupt that has to wait until a silent receiver has been given up.
TEST_F(ProgramTest, AnInterruptEndsTheSupervisionOfTheStart) {
  mkfifo((m_dir + "receiver").c_str(), 0600);
  const pid_t child = Spawn({"--simulate", "--gps", m_dir + "receiver", "--json", "--output", m_dir + "events"});
  ASSERT_TRUE(Tavi::Testing::WaitUntil([&] { return Err().find("camera0 has been started") != std::string::npos; }));
  kill(child, SIGTERM);
  const auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(Wait(child), 0) << Err();
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(20)) << "50 s are the supervision's";
  EXPECT_EQ(Out(), "");
}

TEST_F(ProgramTest, AMistakeStartsNothing) {
  EXPECT_EQ(Wait(Spawn({"--simulate", "--output", m_dir + "events", "--fps0", "0"})), 2);
  EXPECT_FALSE(std::filesystem::exists(m_dir + "events"));
  EXPECT_EQ(Wait(Spawn({"--simulate", "--output", "/proc/none"})), 2);
  EXPECT_THAT(Err(), HasSubstr("tavi-recorder: --output: nothing can be written into \"/proc/none\""));
  EXPECT_EQ(Wait(Spawn({"--device0", "/dev/none0", "--device1", "/dev/null", "--output", m_dir + "events"})), 1);
  EXPECT_EQ(Err(),
            "tavi-recorder: the video device /dev/none0 of camera0 is missing, and /dev/null of camera1 is no video "
            "capture device: connect it, choose another with --device0 / --device1, or use --simulate\n");
  EXPECT_EQ(Wait(Spawn({"--simulate", "--gps", "/dev/none", "--output", m_dir + "events"})), 1);
  EXPECT_EQ(Err(),
            "tavi-recorder: the GPS receiver /dev/none is missing: connect it, choose another with --gps, or leave it "
            "out with --no-gps\n");
  const int taken = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  socklen_t size = sizeof(address);
  address.sin_family = AF_INET;
  ASSERT_TRUE(listen(taken, 1) == 0 && getsockname(taken, reinterpret_cast<sockaddr*>(&address), &size) == 0);
  const std::string port = std::to_string(ntohs(address.sin_port));
  EXPECT_EQ(Wait(Spawn({"--simulate", "--stream0", "--port0", port, "--output", m_dir + "events"})), 1);
  EXPECT_THAT(Err(), HasSubstr("the port " + port + " of a live stream cannot be had"));
  close(taken);
  EXPECT_EQ(Out(), "");
}

}  // namespace
