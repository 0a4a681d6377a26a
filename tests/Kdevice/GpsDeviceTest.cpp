// The receiver on real pseudo-terminals, FIFOs, files and behind a real gpsd: going, coming back, stopping.
#include "Kdevice/GpsDevice/GpsDevice.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <fstream>

#include "Support/Fixtures.h"
#include "Support/Nmea.h"

namespace {

using namespace std::chrono_literals;
using Kbase::Interfaces::IThread;
using Ksystem::FileUtils::UniqueFd;
using Tavi::Testing::WaitUntil;

const std::string R1 = MakeSentence("GPRMC,101501,A,4807.038,N"), R2 = MakeSentence("GPRMC,101502"),
                  G1 = MakeSentence("GPGGA,101501");

class GpsDeviceTest : public Tavi::Testing::TempDirTest, private IThread::IThreadDelegate {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    IThread::IThreadDelegate* delegate = this;
    m_device.Prepare(delegate);
    m_device.path = m_dir + "gps";
  }
  void Invoke(IThread*, void* data) override {
    const std::lock_guard lock(m_mutex);
    m_blocks.emplace_back(static_cast<char*>(data));
  }
  void ExpectBlocks(const std::vector<std::string>& expected) {
    EXPECT_TRUE(WaitUntil([&] {
      const std::lock_guard lock(m_mutex);
      return m_blocks == expected;
    })) << GetLog();
  }
  void ExpectLog(const std::string& text, int count = 1) {
    EXPECT_TRUE(WaitUntil([&] { return CountLogged(text) == count; })) << text << " in\n" << GetLog();
  }
  /// Puts a new port under the device's path and sends `text` once that has opened it.
  UniqueFd Plug(const std::string& text) {
    UniqueFd port(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    EXPECT_EQ(::grantpt(port.Get()) + ::unlockpt(port.Get()), 0);
    std::filesystem::remove(m_device.path);
    std::filesystem::create_symlink(::ptsname(port.Get()), m_device.path);
    EXPECT_TRUE(WaitUntil([&] { return (::tcgetattr(port.Get(), &m_settings), m_settings.c_lflag & ICANON) == 0; }));
    EXPECT_EQ(::write(port.Get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    return port;
  }

  termios m_settings{};
  std::mutex m_mutex;
  std::vector<std::string> m_blocks;
  Kdevice::GpsDevice::GpsDevice m_device;
};

TEST_F(GpsDeviceTest, APortIsSetToRawBytesAndMayGoAndComeBackUnderItsPath) {
  m_device.baud = 38400;
  ASSERT_TRUE(m_device.Start());
  ExpectLog("cannot be opened: No such file");
  UniqueFd port = Plug(G1 + R1 + "$GPRMC,1015");
  EXPECT_EQ(::cfgetispeed(&m_settings), static_cast<speed_t>(B38400));
  EXPECT_EQ(m_settings.c_lflag & (ECHO | ISIG | IEXTEN), 0U);
  EXPECT_EQ(m_settings.c_iflag & (ICRNL | INLCR | IGNCR | ISTRIP | IXON | IXOFF), 0U);
  EXPECT_EQ(m_settings.c_cflag & (CSIZE | PARENB | CSTOPB | CRTSCTS), static_cast<tcflag_t>(CS8));
  ExpectBlocks({G1 + R1});
  port.Close();
  port = Plug(R2);
  // What the device has not read yet is lost with the port.
  ExpectLog("sends again", 2);
  port.Close();
  ExpectBlocks({G1 + R1, R2});
  ExpectLog("has gone", 2);
  EXPECT_EQ(Tavi::Testing::CountThreads("GPS"), 1);
  EXPECT_TRUE(m_device.Abort(20s));
  EXPECT_EQ(CountLogged(m_device.path), 5) << GetLog();
}

TEST_F(GpsDeviceTest, AFifoChangesItsWriterAndIsMadeAnew) {
  ASSERT_EQ(::mkfifo(m_device.path.c_str(), 0600), 0);
  m_device.baud = 12345;
  ASSERT_TRUE(m_device.Start());
  std::ofstream(m_device.path) << R1 << G1 << R2.substr(0, 12);
  ExpectBlocks({R1 + G1});
  std::ofstream(m_device.path) << R2;
  ExpectBlocks({R1 + G1, R2});
  std::filesystem::remove(m_device.path);
  ASSERT_EQ(::mkfifo(m_device.path.c_str(), 0600), 0);
  std::ofstream(m_device.path) << std::string(60'000, 'U') << R1;
  ExpectBlocks({R1 + G1, R2, R1});
  ExpectLog("no RMC sentence in");
  ExpectLog("12345 bits per second is no standard rate, using 9600");
  EXPECT_TRUE(m_device.Abort(20s));
}

TEST_F(GpsDeviceTest, ALogIsReplayedOnceAndItsWaitsEndAtAStop) {
  std::ofstream(m_device.path) << "# a log\n" << R1 << G1 << MakeSentence("GPRMC,101601");
  m_device.replaySpeed = 1000;
  ASSERT_TRUE(m_device.Start());
  ExpectLog("the log ended after 2 epochs");
  const std::vector<std::string> expected{R1 + G1, MakeSentence("GPRMC,101601"), R1 + G1};
  EXPECT_TRUE(m_device.Abort(20s));
  m_device.replaySpeed = 1;
  ASSERT_TRUE(m_device.Start());
  ExpectBlocks(expected);
  EXPECT_TRUE(m_device.Abort(20s)) << "a minute before the next epoch";
  ExpectBlocks(expected);
}

std::string FindFreePort() {
  const UniqueFd probe(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  if (::bind(probe.Get(), generic, size) != 0 || ::getsockname(probe.Get(), generic, &size) != 0) return {};
  return std::to_string(ntohs(address.sin_port));
}

// Catches a daemon that is not asked for its sentences, sentences that it has changed, and one that comes back unheard.
TEST_F(GpsDeviceTest, GpsdsSentencesComeAsTheReceiverSentThemAndAgainAfterItsRestart) {
  constexpr const char* Player = "/usr/bin/gpsfake";
  if (access(Player, X_OK) != 0) GTEST_SKIP() << Player << " is missing";
  const auto makeFix = [](int second) {
    return MakeSentence("GPRMC,1015" + std::to_string(second) + ".00,A,4807.038,N,01131.000,E,022.4,084.4,211126,,");
  };
  std::ofstream log(m_dir + "log.nmea");
  for (int second = 10; second < 40; ++second) log << makeFix(second);
  log.close();
  const std::string port = FindFreePort();
  m_device.path = "gpsd://127.0.0.1:" + port;
  ASSERT_TRUE(m_device.Start());
  ExpectLog("cannot be reached: Connection refused");
  for (int round = 1; round <= 2; ++round) {
    const pid_t player = fork();
    if (player == 0) {
      // Of its own group: the daemon that it starts ends with it.
      setpgid(0, 0);
      execl(Player, Player, "-q", "-c", "0.1", "-P", port.c_str(), (m_dir + "log.nmea").c_str(), nullptr);
      _exit(127);
    }
    EXPECT_TRUE(WaitUntil([&] {
      const std::lock_guard lock(m_mutex);
      return std::ranges::any_of(m_blocks, [&](const auto& block) { return block == makeFix(20); });
    }));
    ::kill(-player, SIGTERM), ::waitpid(player, nullptr, 0);
    ExpectLog("has gone", round);
    const std::lock_guard lock(m_mutex);
    m_blocks.clear();
  }
  m_device.Stop();
}

}  // namespace
