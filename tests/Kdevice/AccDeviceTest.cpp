// The accelerometer on a model of its chip that refuses, vanishes, runs over and forgets its settings.
#include <gtest/gtest.h>

#include <cerrno>
#include <deque>

#include "Kdevice/ACC/AccDevice.h"
#include "Kdevice/ACC/Mma8451.h"
#include "Support/Fixtures.h"

namespace {

using namespace Kdevice::ACC;
using namespace std::chrono_literals;
using Kdevice::I2C::I2c;
using Tavi::Testing::WaitUntil;

/// Samples arrive from one look at the FIFO's status to the next; their bytes count up.
struct Chip final : Kdevice::I2C::I2cBus {
  bool Transfer(std::uint8_t address, std::span<const std::uint8_t> out, std::span<std::uint8_t> in) override {
    const std::uint8_t reg = out[0];
    errno = EIO;
    if (address != 0x1C || (reg == failingRegister && failing > 0)) {
      for (int i = 0; i < 15 && !fifo.empty(); ++i) fifo.pop_front();
      return --failing < 0;
    }
    if (isPoweredUp.exchange(false)) registers = {}, fifo.clear();
    if (in.empty()) {
      registers[reg] = out[1];
      if (reg == Mma8451::F_SETUP && out[1] == Mma8451::F_MODE_OFF) fifo.clear();
    } else if (reg == Mma8451::WHO_AM_I) {
      in[0] = id;
    } else if (reg == Mma8451::F_STATUS && registers[Mma8451::CTRL_REG1] == 0x0B &&
               registers[Mma8451::F_SETUP] == 0x40) {
      for (int i = 3 * arriving.exchange(10); i > 0; --i) fifo.push_back(next++);
      while (fifo.size() > 96) fifo.pop_front();
      in[0] = static_cast<std::uint8_t>(fifo.size() / 3 | (fifo.size() == 96 ? Mma8451::F_OVF : 0));
      if (isConfused) in[0] = 0x7F;
    }
    if (reg != Mma8451::OUT_X_MSB) return true;
    for (auto at = in.begin(); at != in.end() && !fifo.empty(); fifo.pop_front()) *at++ = fifo.front();
    return true;
  }
  std::array<std::uint8_t, 256> registers{};
  std::deque<std::uint8_t> fifo;
  std::uint8_t next = 0;
  std::atomic<std::uint8_t> id{0x1A};
  std::atomic<int> arriving{10}, failing{0}, failingRegister{0};
  std::atomic<bool> isConfused{false}, isPoweredUp{false};
};

class AccDeviceTest : public Tavi::Testing::TempDirTest, public Kbase::Interfaces::IThread::IThreadDelegate {
 protected:
  AccDeviceTest() { I2c::Attach(99, chip); }
  ~AccDeviceTest() override { I2c::Attach(99, nullptr); }
  void Invoke(Kbase::Interfaces::IThread*, void* data) override {
    const auto* block = static_cast<const SampleBlock*>(data);
    bytes.insert(bytes.end(), block->native, block->native + block->count);
    ++blocks;
  }
  bool Start(AccDevice& device) {
    IThreadDelegate* self = this;
    device.Prepare(self);
    return device.Start() && WaitForBlocks(1);
  }
  bool WaitForBlocks(int more) {
    return WaitUntil([this, enough = blocks + more] { return blocks >= enough; });
  }
  std::shared_ptr<Chip> chip = std::make_shared<Chip>();
  std::atomic<int> blocks{0};
  std::vector<std::uint8_t> bytes;
};

TEST_F(AccDeviceTest, BlocksAreFreshAndWholeWhateverPassesAndStoppingNeedsNoBus) {
  chip->fifo = {7, 7, 7};
  AccDevice device(99, 0x1C, GForceScale::G8, OutputDataRate::Hz400, {1h, 1h});
  ASSERT_TRUE(Start(device));
  for (const int reg : {Mma8451::F_STATUS, Mma8451::OUT_X_MSB}) {
    chip->failingRegister = reg;
    chip->failing = 2;
    chip->arriving = 40;
    ASSERT_TRUE(WaitUntil([&] { return chip->failing == 0; }) && WaitForBlocks(6));
  }
  I2c::Attach(99, nullptr);
  ASSERT_TRUE(WaitUntil([&] { return CountLogged("trying again") == 1; }));
  EXPECT_TRUE(device.Abort(5s));
  EXPECT_EQ(bytes[0], 0) << "the sample of before is gone";
  for (std::size_t i = 0; i < bytes.size(); ++i) ASSERT_EQ(bytes[i], std::uint8_t(bytes[i / 30 * 30] + i % 30));
  EXPECT_EQ(chip->registers[Mma8451::XYZ_DATA_CFG], Mma8451::FS_8G);
  EXPECT_GE(device.GetOverflowCount(), 2U);
  EXPECT_EQ(CountLogged("a fault passed by: Input/output error"), 1);
  EXPECT_EQ(CountLogged("samples were lost"), 1);
}

TEST_F(AccDeviceTest, AnOutageIsOneLineAndTheChipIsSetUpAnew) {
  const struct {
    const char* line;
    std::function<void()> begin, end;
  } outages[] = {
      {"0x1c of /dev/i2c-99: No such file", [] { I2c::Attach(99, nullptr); }, [&] { I2c::Attach(99, chip); }},
      {"its id is 0x2a, not 0x1a", [&] { chip->id = 0x2A, chip->isPoweredUp = true; }, [&] { chip->id = 0x1A; }},
      {"it delivers no samples", [&] { chip->isPoweredUp = true; }, [] {}},
      {"its FIFO claims to hold 63", [&] { chip->isConfused = true; }, [&] { chip->isConfused = false; }},
      {"Input/output error", [&] { chip->failing = 20; }, [] {}},
  };
  AccDevice device(99, 0x1C, GForceScale::G4, OutputDataRate::Hz400, {2ms, 0h});
  ASSERT_TRUE(Start(device));
  for (const auto& outage : outages) {
    outage.begin();
    ASSERT_TRUE(WaitUntil([&] { return CountLogged(outage.line) > 0; })) << outage.line;
    outage.end();
    ASSERT_TRUE(WaitUntil([&] { return CountLogged("samples are coming again") == 1; })) << outage.line;
    EXPECT_EQ(CountLogged(outage.line), 1) << GetLog();
    ClearLog();
  }
}

}  // namespace
