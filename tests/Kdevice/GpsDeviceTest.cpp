// The receiver on real pseudo-terminals, FIFOs and files: going, coming back, stopping.
#include "Kdevice/GpsDevice/GpsDevice.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <termios.h>

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
  EXPECT_TRUE(m_device.Abort(500ms));
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
  EXPECT_TRUE(m_device.Abort(500ms));
}

TEST_F(GpsDeviceTest, ALogIsReplayedOnceAndItsWaitsEndAtAStop) {
  std::ofstream(m_device.path) << "# a log\n" << R1 << G1 << R2;
  m_device.replaySpeed = 1000;
  ASSERT_TRUE(m_device.Start());
  ExpectLog("the log ended after 2 epochs");
  EXPECT_TRUE(m_device.Abort(500ms));
  m_device.replaySpeed = 1;
  ASSERT_TRUE(m_device.Start());
  ExpectBlocks({R1 + G1, R2, R1 + G1});
  EXPECT_TRUE(m_device.Abort(500ms));
  ExpectBlocks({R1 + G1, R2, R1 + G1});
}

}  // namespace
