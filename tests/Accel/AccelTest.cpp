// The accelerometer's samples: smoothing, records, resets, the device behind them, the event's file.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <new>

#include "Kbase/UtilAcc/UtilAcc.h"
#include "Kdevice/I2C/I2c.h"
#include "Support/Media.h"
#include "Tavi/Accel/AccPipelineCbElement.h"
#include "Tavi/Accel/AccPipelineCollect.h"
#include "Tavi/Accel/AccPipelineElement.h"

namespace {

/// Records that live: what a buffer's end does not free is not seen by looking at the buffer.
std::atomic<int> g_liveRecords{0};

void* Allocate(std::size_t size) {
  if (void* memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}

}  // namespace

void* operator new(std::size_t size) {
  if (size == sizeof(Tavi::Accel::AccDataPak)) ++g_liveRecords;
  return Allocate(size);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t size) noexcept {
  if (size == sizeof(Tavi::Accel::AccDataPak)) --g_liveRecords;
  std::free(memory);
}

namespace {

using namespace Tavi::Accel;
using Tavi::Testing::MakeBuffer;

/// A chip that reads 1 g on all axes and takes no settings but standby and 100 Hz, fast read, active; or none.
struct Chip final : Kdevice::I2C::I2cBus {
  bool Transfer(std::uint8_t address, std::span<const std::uint8_t> out, std::span<std::uint8_t> in) override {
    std::fill(in.begin(), in.end(), static_cast<std::uint8_t>(out[0] == 0x0D ? 0x1A : out[0] == 0 ? 10 : 32));
    return isThere && address == 0x1C && (out[0] != 0x2A || out[1] == 0 || out[1] == 0x1B);
  }
  std::atomic<bool> isThere{false};
};

class AccelTest : public Tavi::Testing::MediaTest {
 protected:
  AccelTest() { Kdevice::I2C::I2c::Attach(1, chip); }
  ~AccelTest() override { Kdevice::I2C::I2c::Attach(1, nullptr); }
  AccDataPak Feed(const std::vector<std::uint8_t>& native) {
    Kdevice::ACC::SampleBlock block{native.data(), native.size()};
    element.Invoke(nullptr, &block);
    AccDataPak record;
    EXPECT_EQ(gst_buffer_extract(GetBuffer(), 0, &record, 1000), sizeof record);
    return record;
  }
  GstBuffer* GetBuffer() { return dynamic_cast<AccPipelineCbElement&>(*element.RetrieveCurrent()).buffer; }
  std::shared_ptr<Chip> chip = std::make_shared<Chip>();
  AccPipelineElement element{AccConfig{}, 1};
};

/// A chip that notes what it was set to, and reads 1 g upright, nothing across, half a g along.
struct NotingChip final : Kdevice::I2C::I2cBus {
  bool Transfer(std::uint8_t address, std::span<const std::uint8_t> out, std::span<std::uint8_t> in) override {
    if (address != 0x1D) return false;
    if (in.empty() && out[0] == 0x0E) range = out[1];
    for (std::size_t i = 0; i < in.size(); ++i) in[i] = static_cast<std::uint8_t>(i % 3 == 0 ? 16 : i % 3 == 1 ? 0 : 8);
    if (in.size() == 1) in[0] = out[0] == 0x0D ? 0x1A : 10;
    return true;
  }
  std::atomic<int> range{-1};
};

// A setting that reaches no chip: another bus or address, bytes that are counted by another scale than the chip's.
TEST_F(AccelTest, TheSettingsReachTheChipAndItsSamples) {
  const auto noting = std::make_shared<NotingChip>();
  Kdevice::I2C::I2c::Attach(7, noting);
  AccConfig config;
  config.bus = 7;
  config.address = 0x1D;
  config.scale = 8;
  config.axes = "-x,z,y";
  config.restSecondG = 0.6F;
  AccPipelineElement askew(config, 4);
  askew.Start();
  ASSERT_TRUE(Tavi::Testing::WaitUntil([&] { return askew.IsDataAvailable(); }));
  askew.Stop();
  Kdevice::I2C::I2c::Attach(7, nullptr);
  EXPECT_EQ(noting->range, 2) << "8 g, by the data sheet";
  AccDataPak record;
  gst_buffer_extract(dynamic_cast<AccPipelineCbElement&>(*askew.RetrieveCurrent()).buffer, 0, &record, sizeof record);
  EXPECT_EQ(record.scale, 8);
  // (-1, 0.5, 0) by the order of the axes; gravity as (-0.8, 0.6, 0) makes (-1.1, -0.2, 0) of it.
  EXPECT_EQ(record.native[0], 0x100 - 18);
  EXPECT_EQ(record.native[1], 0x100 - 3);
  EXPECT_EQ(record.native[2], 0);
  EXPECT_FLOAT_EQ(record.g[0], -18.0F / 16.0F);
}

/// 100 samples a second: a road's roughness on top of slow swings, in native units of 1/32 g.
TEST(MovingAverage, DropsTheSixtySecondLastAndDriftsByNothingIn24HoursOfNativeSamples) {
  Kbase::Util::MovingAverage<float> average(61);
  std::array<int, 61> last{};
  int sum = 0, different = 0;
  std::uint32_t noise = 1;
  for (int i = 0; i < 24 * 3600 * 100; ++i) {
    noise = noise * 1664525U + 1013904223U;
    const int native = (i / 777) % 160 - 80 + static_cast<int>(noise >> 27) - 16;
    sum += native - std::exchange(last[static_cast<std::size_t>(i % 61)], native);
    const float expected = static_cast<float>(sum) / 32.0F / static_cast<float>(std::min(i + 1, 61));
    const float g = Kbase::UtilAcc::AccNativeToFloat(static_cast<unsigned char>(native), 4);
    different += average.Add(g) == expected ? 0 : 1;
  }
  EXPECT_EQ(different, 0);
}

TEST_F(AccelTest, BlocksOfAnyLengthBecomeOneRecordEachWhichIsFreedOnce) {
  int made = 0;
  const int before = g_liveRecords;
  for (const std::size_t length : {0U, 1U, 29U, 30U, 31U, 300U}) {
    std::vector<std::uint8_t> native(length);
    for (std::size_t i = 0; i < length; ++i) native[i] = static_cast<std::uint8_t>(i % 3 * 32 - 32);
    const AccDataPak record = Feed(native);
    for (std::size_t i = 0; i < 32; ++i) {
      const bool isGiven = i < std::min<std::size_t>(length, 30);
      ASSERT_EQ(record.native[i], isGiven ? native[i] : 0) << length << ": " << i;
      ASSERT_EQ(i < 30 ? record.g[i] : 0.0F, isGiven ? static_cast<float>(i % 3) - 1.0F : 0.0F) << length << ": " << i;
    }
    EXPECT_EQ(record.scale, 4);
    EXPECT_EQ(GST_BUFFER_PTS(GetBuffer()), made * 100 * GST_MSECOND);
    ++made;
    EXPECT_EQ(g_liveRecords, before + 1) << "the ring's one entry";
  }
  Feed({});
  EXPECT_EQ(CountLogged("Aquisition for acc has been started"), 1);
}

TEST_F(AccelTest, AResetWhileRunningTakesEffectBehindTheNextBlockAndAStartBeginsAtZero) {
  Feed({0});
  element.Start();
  element.ResetAverageBuffers();
  EXPECT_EQ(Feed({64}).g[0], 1.0F) << "still with the zero before";
  EXPECT_EQ(Feed({64}).g[0], 2.0F);
  EXPECT_EQ(GST_BUFFER_PTS(GetBuffer()), 100 * GST_MSECOND);
  element.ResetAverageBuffers();
  element.Stop();
  EXPECT_EQ(Feed({0}).g[0], 0.0F) << "a reset that no block followed is not forgotten";
  element.ResetAverageBuffers();
  EXPECT_EQ(Feed({64}).g[0], 2.0F) << "at once while it is stopped";
  chip->isThere = true;
  element.Start();
  EXPECT_TRUE(Tavi::Testing::WaitUntil([&] { return element.GetCurrentFrameId() > 4; }));
}

TEST_F(AccelTest, TheFirstAxisIsMovedByOneForThePeakAndByTwoForTheFile) {
  const std::tuple<std::array<float, 3>, std::uint8_t, std::array<int, 3>, double> cases[] = {
      {{-1.0F, NAN, 0.0F}, 4, {32, 0, 0}, 0.0},        {{0.0F, 0.0F, 0.0F}, 4, {64, 0, 0}, 1.0},
      {{-1.5F, 0.25F, -3.0F}, 4, {16, 8, -96}, 3.0},   {{-3.5F, 0.5F / 32, -1.5F / 32}, 4, {-48, 1, -2}, 2.5},
      {{3.0F, 4.5F, -5.0F}, 4, {127, 127, -128}, 5.0}, {{3.0F, 1.0F, 1.0F}, 2, {127, 64, 64}, 4.0},
      {{0.0F, 9.0F, 1.0F}, 0, {0, 0, 0}, 9.0}};
  for (const auto& [g, scale, native, peak] : cases) {
    AccDataPak record;
    for (std::size_t i = 0; i < record.g.size(); ++i) record.g[i] = i < 3 ? g[i] : i % 3 == 0 ? -1.0F : 0.0F;
    record.scale = scale;
    const std::string bytes(reinterpret_cast<const char*>(&record), sizeof record);
    AccPipelineCbElement entry(0, MakeBuffer(bytes, 0), "acc"), cutOff(0, MakeBuffer("short", 0), "acc");
    AccPipelineCollect collector(nullptr, false), twin(nullptr, true);
    FILE* file = std::fopen((m_dir + "acc").c_str(), "wb");
    EXPECT_FALSE(collector.Write(file, nullptr) || collector.Write(file, &cutOff) || collector.Write(nullptr, &entry));
    EXPECT_TRUE(collector.Write(file, &entry));
    std::fclose(file);
    std::string expected("\x1e\0\0\0", 4);
    for (const int value : native) expected += static_cast<char>(value);
    for (int i = 1; i < 10; ++i) expected += {static_cast<char>(scale == 0 ? 0 : 128 / scale), 0, 0};
    EXPECT_EQ(Tavi::Testing::ReadFile(m_dir + "acc"), expected) << testing::PrintToString(g);
    collector.CopyTo(&twin);
    collector.Reset();
    EXPECT_EQ(twin.GetMaxG() - collector.GetMaxG(), peak);
  }
}

}  // namespace
