// The simulated car's drive, its receiver's text and its accelerometer chip.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <numbers>
#include <sstream>
#include <string>
#include <vector>

#include "Kdevice/ACC/AccDevice.h"
#include "Kdevice/I2C/I2c.h"
#include "Simulator/AccChip.h"
#include "Simulator/GpsSimulator.h"
#include "Simulator/NmeaText.h"
#include "Support/Fixtures.h"
#include "Support/Nmea.h"

namespace Tavi::Simulator {
namespace {

constexpr double Step = 0.001;

/// Metres north and east of `from`, on a sphere: good to a few parts in a thousand.
std::pair<double, double> Offset(const DriveState& from, const DriveState& to) {
  constexpr double MetresPerDegree = 6'371'000 * std::numbers::pi / 180;
  return {(to.latitude - from.latitude) * MetresPerDegree,
          (to.longitude - from.longitude) * MetresPerDegree * std::cos(from.latitude * std::numbers::pi / 180)};
}

TEST(DriveTest, PositionSpeedAndAccelerationAgreeOverALapThatCloses) {
  const Drive drive;
  double way = 0;
  int stops = 0;
  std::vector<double> hardBraking;
  for (double t = 0; t < drive.LapSeconds(); t += Step) {
    const DriveState a = drive.At(t);
    const DriveState b = drive.At(t + Step);
    ASSERT_NEAR(b.speedMps - a.speedMps, (a.longitudinalMps2 + b.longitudinalMps2) / 2 * Step, 1e-4) << t;
    const auto [north, east] = Offset(a, b);
    ASSERT_NEAR(std::hypot(north, east), a.speedMps * Step, 2e-4) << t;
    const double turn = std::remainder(b.courseDegrees - a.courseDegrees, 360) * std::numbers::pi / 180;
    ASSERT_NEAR(turn * a.speedMps, a.lateralMps2 * Step, 4e-3) << t;
    if (a.speedMps > 1) {
      ASSERT_NEAR(std::remainder(std::atan2(east, north) * 180 / std::numbers::pi - a.courseDegrees, 360), 0, 1) << t;
    }
    way += a.speedMps * Step;
    stops += a.speedMps > 0 && b.speedMps == 0 ? 1 : 0;
    if (a.longitudinalMps2 < -5) hardBraking.push_back(t);
    EXPECT_LT(std::abs(a.lateralMps2), 4);
  }
  EXPECT_NEAR(way, drive.LapMetres(), 0.1);
  EXPECT_GE(stops, 2);
  // One stretch of it.
  ASSERT_FALSE(hardBraking.empty());
  EXPECT_NEAR(hardBraking.front(), 20, 1.5);
  EXPECT_NEAR(hardBraking.back() - hardBraking.front(), 1.5, 0.3);
  EXPECT_NEAR(static_cast<double>(hardBraking.size()) * Step, hardBraking.back() - hardBraking.front(), 0.01);
  const auto [north, east] = Offset(drive.At(0), drive.At(drive.LapSeconds() - 1e-6));
  EXPECT_LT(std::hypot(north, east), 0.01);
  EXPECT_DOUBLE_EQ(drive.At(-3).latitude, drive.At(drive.LapSeconds() - 3).latitude);
}

/// The bodies of the sentences, each of whose checksums is right.
std::vector<std::string> Verified(const std::string& text) {
  std::vector<std::string> bodies;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const auto star = line.find('*');
    EXPECT_EQ(line + "\n", MakeSentence(line.substr(1, star - 1)));
    EXPECT_LE(line.size() + 1, 82U) << line;
    bodies.push_back(line.substr(1, star - 1));
  }
  return bodies;
}

TEST(NmeaTextTest, FieldsAreRoundedWithoutLeavingTheirRange) {
  // 1994-03-23 12:35:19.2 UTC; minutes that round up to 60, a course that rounds up to 360.
  const DriveState state{-48.1173, 11.99999999, 10, 359.97, 0, 0};
  const auto bodies = Verified(BuildNmeaEpoch(state, 764426119200));
  ASSERT_EQ(bodies.size(), 6U);
  EXPECT_EQ(bodies[0], "GPRMC,123519.20,A,4807.0380,S,01200.0000,E,19.44,0.0,230394,,,A");
  EXPECT_EQ(bodies[1], "GPGGA,123519.20,4807.0380,S,01200.0000,E,1,09,0.9,519.4,M,46.9,M,,");
  EXPECT_EQ(bodies[2], "GPGSA,A,3,02,05,09,12,17,20,25,29,31,,,,1.6,0.9,1.3");
  EXPECT_EQ(bodies[5], "GPGSV,3,3,09,31,17,318,34");
}

std::string ReadFor(int fd, int timeoutMs) {
  std::string text;
  pollfd poller{fd, POLLIN, 0};
  while (text.find("GPGSV,3,3") == std::string::npos && poll(&poller, 1, timeoutMs) > 0) {
    char part[1024];
    const ssize_t size = read(fd, part, sizeof part);
    if (size <= 0) break;
    text.append(part, static_cast<std::size_t>(size));
  }
  return text;
}

/// Nobody reads for a while; then the port is opened twice over.
TEST(GpsSimulatorTest, APortThatNobodyReadHoldsOneWholeEpochAtMost) {
  const Drive drive;
  const DriveClock clock;
  GpsSimulator gps(drive, clock, 10);
  ASSERT_EQ(gps.GetProblem(), "");
  ASSERT_TRUE(gps.Start());
  usleep(3'500'000);
  for (int round = 0; round < 2; ++round) {
    const int port = open(gps.GetPath().c_str(), O_RDWR | O_NOCTTY);
    ASSERT_GE(port, 0);
    for (int epoch = 0; epoch < 3; ++epoch) {
      const auto bodies = Verified(ReadFor(port, 10'000));
      ASSERT_EQ(bodies.size(), 6U) << round << " " << epoch;
      const long second = std::stol(bodies[0].substr(10, 2));
      const long behind = (std::time(nullptr) - second + 60) % 60;
      EXPECT_LE(behind, 2);
    }
    close(port);
  }
}

class ManualClock : public DriveClock {
 public:
  [[nodiscard]] std::int64_t NowNs() const override { return nowNs; }
  std::int64_t nowNs = 0;
};

class AccChipTest : public testing::Test {
 protected:
  void SetUp() override { Kdevice::I2C::I2c::Attach(7, m_chip); }
  void TearDown() override { Kdevice::I2C::I2c::Attach(7, nullptr); }

  void Set(std::uint8_t reg, std::uint8_t value) { ASSERT_TRUE(m_bus.WriteRegister(AccChip::Address, reg, value)); }
  std::vector<std::uint8_t> Get(std::uint8_t reg, std::size_t count) {
    std::vector<std::uint8_t> values(count);
    EXPECT_TRUE(m_bus.ReadRegisters(AccChip::Address, reg, values));
    return values;
  }
  int Status() { return Get(0x00, 1)[0]; }
  /// Circular FIFO with a watermark of ten, 4 g, fast reading, 100 Hz.
  void Activate() {
    Set(0x2A, 0);
    Set(0x09, 0x4A);
    Set(0x0E, 0x01);
    Set(0x2A, 0x18 | 0x02 | 0x01);
  }
  void PassMs(int ms) { m_clock->nowNs += std::int64_t{ms} * 1'000'000; }

  std::shared_ptr<ManualClock> m_clock = std::make_shared<ManualClock>();
  std::shared_ptr<AccChip> m_chip = std::make_shared<AccChip>(std::make_shared<Drive>(), m_clock);
  Kdevice::I2C::I2c m_bus{7};
};

TEST_F(AccChipTest, FifoFillsAtTheDataRateAndRunsOver) {
  EXPECT_EQ(Get(0x0D, 1)[0], 0x1A);
  PassMs(500);
  EXPECT_EQ(Get(0x0B, 1)[0], 0) << "standby";
  Activate();
  EXPECT_EQ(Status(), 0);
  PassMs(95);
  EXPECT_EQ(Status(), 9);
  PassMs(5);
  EXPECT_EQ(Status(), 0x40 | 10);
  // A burst stays at the data register, drains the FIFO and reads 0 behind its end.
  auto burst = Get(0x01, 33);
  EXPECT_NEAR(static_cast<std::int8_t>(burst[27]), -32, 1);
  EXPECT_THAT(std::vector(burst.begin() + 30, burst.end()), testing::Each(0));
  EXPECT_EQ(Status(), 0);
  PassMs(400);
  EXPECT_EQ(Status(), 0xC0 | 32);
  Set(0x2A, 0);
  PassMs(400);
  Activate();
  EXPECT_EQ(Status(), 0) << "flushed when it leaves standby";
}

/// What is left after the FIFO ran over are the newest samples: the hard braking and nothing from before it.
TEST_F(AccChipTest, SamplesAreTheDriveOfTheirTime) {
  m_clock->nowNs = 5'000'000'000;
  Activate();
  m_clock->nowNs = 21'000'000'000;
  const auto burst = Get(0x01, 96);
  for (std::size_t i = 0; i < burst.size(); i += 3) {
    EXPECT_NEAR(static_cast<std::int8_t>(burst[i]), -32, 1);
    EXPECT_NEAR(static_cast<std::int8_t>(burst[i + 1]), -27, 1) << "0.85 g of 32 a g";
    EXPECT_NEAR(static_cast<std::int8_t>(burst[i + 2]), 0, 1);
  }
  // Without the FIFO: status, then both bytes of each axis, then the status again; 2 g, where 1 g is 0x4000.
  Set(0x2A, 0);
  Set(0x09, 0);
  Set(0x0E, 0);
  Set(0x2A, 0x19);
  PassMs(10);
  const auto words = Get(0x00, 8);
  EXPECT_EQ(words[0], 0x0F);
  EXPECT_NEAR(static_cast<std::int16_t>(words[1] << 8 | words[2]), -0x4000, 250);
  EXPECT_EQ(words[7], 0);
}

// Catches axes that have changed places since a burst ended within a sample.
TEST_F(AccChipTest, ABurstThatBreaksOffRotatesTheAxesOnlyUntilTheChipIsSetUpAnew) {
  Activate();
  PassMs(100);
  m_chip->BreakOffNextBurst(4);
  std::uint8_t block[30];
  EXPECT_FALSE(m_bus.ReadRegisters(AccChip::Address, 0x01, block));
  EXPECT_NEAR(static_cast<std::int8_t>(Get(0x01, 6)[2]), -32, 1) << "the upright axis comes third now";

  const auto chip = std::make_shared<AccChip>(std::make_shared<Drive>(), std::make_shared<DriveClock>());
  Kdevice::I2C::I2c::Attach(7, chip);
  struct Blocks final : Kbase::Interfaces::IThread::IThreadDelegate {
    void Invoke(Kbase::Interfaces::IThread*, void* data) override {
      const auto* samples = static_cast<const Kdevice::ACC::SampleBlock*>(data);
      for (std::size_t i = 0; i < samples->count; i += 3) {
        EXPECT_NEAR(static_cast<std::int8_t>(samples->native[i]), -32, 1) << "block " << count;
      }
      ++count;
    }
    std::atomic<int> count{0};
  } blocks;
  Kdevice::ACC::AccDevice device(7, AccChip::Address, Kdevice::ACC::GForceScale::G4,
                                 Kdevice::ACC::OutputDataRate::Hz400);
  Kbase::Interfaces::IThread::IThreadDelegate* delegate = &blocks;
  device.Prepare(delegate);
  ASSERT_TRUE(device.Start());
  for (const std::size_t at : {4, 8, 29}) {
    ASSERT_TRUE(Testing::WaitUntil([&, enough = blocks.count + 3] { return blocks.count >= enough; }));
    chip->BreakOffNextBurst(at);
  }
  ASSERT_TRUE(Testing::WaitUntil([&, enough = blocks.count + 3] { return blocks.count >= enough; }));
  EXPECT_TRUE(device.Abort(std::chrono::seconds(5)));
  EXPECT_EQ(device.GetErrorCount(), 3U);
}

}  // namespace
}  // namespace Tavi::Simulator
