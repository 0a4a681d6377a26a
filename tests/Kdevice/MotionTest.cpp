// From the sensor's samples, however it is mounted and whatever its rate, to blocks of 100 Hz; sensors of the kernel.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <utility>

#include "Kdevice/ACC/IioDevice.h"
#include "Support/Fixtures.h"

namespace {

using namespace Kdevice::ACC;
using namespace std::chrono_literals;
using std::chrono::nanoseconds;
using Tavi::Testing::ReadFile;
using Tavi::Testing::WaitUntil;
namespace fs = std::filesystem;
using Vector = Mounting::Vector;

// Catches an axis that is taken for another, a turn the wrong way round, and an impact that wraps around.
TEST(MountingTest, TheUnitsAxesAreWhatTheyReadWhereverTheSensorSits) {
  const struct {
    const char* axes;
    float second, third;
    Vector sensor, unit;
  } cases[] = {
      {"x,y,z", 0, 0, {1, 2, 3}, {1, 2, 3}},
      {"-z,x,-y", 0, 0, {1, 2, 3}, {-3, 1, -2}},
      {"x,y,z", 0.6F, 0, {-0.8F, 0.6F, 0}, {-1, 0, 0}},
      {"z,x,y", 0, -0.5F, {0, -0.5F, -std::sqrt(0.75F)}, {-1, 0, 0}},
      {"x,y,z", 0.4F, 0.3F, {-std::sqrt(0.75F), 0.4F, 0.3F}, {-1, 0, 0}},
      // What lies in the turn's axis, and a push along the vehicle, which a unit that leans forward reads on two axes.
      {"x,y,z", 0, 0.6F, {0, 1, 0}, {0, 1, 0}},
      {"x,y,z", 0, 0.6F, {0.6F, 0, 0.8F}, {0, 0, 1}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.axes);
    auto mounting = Mounting::Parse(c.axes).value();
    mounting.SetRest(c.second, c.third);
    for (std::size_t i = 0; i < 3; ++i) EXPECT_NEAR(mounting.Turn(c.sensor)[i], c.unit[i], 1e-5) << i;
  }
  std::vector<std::uint8_t> native{0x80, 1, 0xFF, 5, 6, 7};
  Mounting::Parse("y,-x,-z")->Turn(native);
  EXPECT_EQ(native, (std::vector<std::uint8_t>{1, 127, 1, 6, 0xFB, 0xF9})) << "-(-128) is no native number";
  for (const char* wrong : {"", "x,y", "x,y,y", "x,y,z,", "x y z", "x,y,w", "--x,y,z", "X,Y,Z", "x,y,-"}) {
    EXPECT_FALSE(Mounting::Parse(wrong)) << wrong;
  }
}

// Catches time that runs faster or slower than the sensor's, a tone beyond 50 Hz that comes out as a slow one, and
// samples that are made up.
TEST(ResamplerTest, WhateverTheRateAHundredSamplesASecondTellTheSame) {
  for (const double rate : {12.5, 50.0, 95.0, 100.0, 104.0, 400.0, 1600.0}) {
    SCOPED_TRACE(rate);
    std::vector<float> slow;
    float fast = 0;
    Resampler resampler([&](const Vector& g) {
      slow.push_back(g[0]);
      fast = std::max(fast, std::abs(g[2]));
    });
    const auto wave = [](double seconds, double hz) { return static_cast<float>(std::sin(2 * M_PI * hz * seconds)); };
    for (int i = 0; i <= 10 * rate; ++i) {
      const double seconds = i / rate;
      EXPECT_TRUE(
          resampler.Feed(nanoseconds(std::llround(seconds * 1e9)), {wave(seconds, 0.5), 0, wave(seconds, 195)}));
    }
    EXPECT_NEAR(static_cast<double>(slow.size()), 1000.0, 1.0);
    double worst = 0;
    for (std::size_t i = 0; i < slow.size(); ++i) {
      worst =
          std::max(worst, static_cast<double>(std::abs(slow[i] - wave(0.01 * static_cast<double>(i) + 0.005, 0.5))));
    }
    EXPECT_LT(worst, rate < 20 ? 0.01 : 0.001);
    EXPECT_LT(fast, rate < 1600 ? 2.0 : 0.2);
    const std::size_t before = slow.size();
    EXPECT_FALSE(resampler.Feed(11s, {}));
    EXPECT_FALSE(resampler.Feed(10s, {})) << "a clock that was set back";
    EXPECT_EQ(slow.size(), before);
  }
}

/// A sensor as the kernel shows one: twelve bits in the upper part of two bytes, a time stamp, and one that nobody
/// wants.
class IioTest : public Tavi::Testing::TempDirTest, public Kbase::Interfaces::IThread::IThreadDelegate {
 protected:
  void MakeSensor() const {
    Make("trigger7/name", "mma8452-dev3\n");
    for (const auto& [file, text] : std::initializer_list<std::pair<const char*, const char*>>{
             {"name", "mma8452\n"},
             {"sampling_frequency", "12.5\n"},
             {"sampling_frequency_available", "800 400 200 100 50 12.5 6.25\n"},
             {"in_accel_scale", "0.009577\n"},
             {"in_accel_scale_available", "0.009577 0.019154 0.038307\n"},
             {"in_accel_mount_matrix", "0, 1, 0; -1, 0, 0; 0, 0, 1\n"},
             {"trigger/current_trigger", "\n"},
             {"current_timestamp_clock", "realtime\n"},
             {"buffer/enable", "0\n"},
             {"buffer/length", "0\n"}}) {
      Make(std::string("iio:device3/") + file, text);
    }
    const char* const channels[] = {"in_accel_x", "in_accel_y", "in_accel_z", "in_tilt", "in_timestamp"};
    for (int i = 0; i < 5; ++i) {
      const std::string channel = std::string("iio:device3/scan_elements/") + channels[i];
      Make(channel + "_en", i == 3 ? "1\n" : "0\n");
      Make(channel + "_index", std::to_string(i) + "\n");
      Make(channel + "_type", i == 4 ? "le:s64/64>>0\n" : "be:s12/16>>4\n");
    }
  }
  void Make(const std::string& name, const std::string& text) const {
    const fs::path path = m_dir + name;
    fs::create_directories(path.parent_path());
    std::ofstream(path) << text;
  }
  std::string Get(const std::string& name) const { return ReadFile(m_dir + "iio:device3/" + name); }
  /// As the kernel's node does, it gives what is there and says so.
  int PlugIn() const {
    fs::create_directories(m_dir + "nodes");
    mkfifo((m_dir + "nodes/iio:device3").c_str(), 0600);
    return open((m_dir + "nodes/iio:device3").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  }
  void Send(int node, int from, int count) const {
    for (int i = from; i < from + count; ++i) {
      std::array<std::uint8_t, 16> record{};
      const int raw[] = {512, -256, i % 2 == 0 ? 100 : -100};  // of 2047 to 4 g: 1 g, -0.5 g, and nothing on the mean
      for (std::size_t axis = 0; axis < 3; ++axis) {
        const auto bits = static_cast<std::uint16_t>(raw[axis] * 16 + 5);
        record[axis * 2] = static_cast<std::uint8_t>(bits >> 8);
        record[axis * 2 + 1] = static_cast<std::uint8_t>(bits);
      }
      const std::int64_t ns = 1'000'000'000'000 + std::int64_t{i} * 2'500'000;
      std::memcpy(record.data() + 8, &ns, sizeof(ns));
      // What is full is not read any more: nothing is lost that anybody waits for.
      if (write(node, record.data(), record.size()) != 16) return;
    }
  }
  void Invoke(Kbase::Interfaces::IThread*, void* data) override {
    const auto* block = static_cast<const SampleBlock*>(data);
    last.assign(block->native, block->native + block->count);
    ++blocks;
  }
  std::atomic<int> blocks{0};
  std::vector<std::uint8_t> last;
};

// Catches a sensor that is set to another range than its bytes are counted by, bytes in the wrong order, a sensor that
// is not taken up again, and one that samples on without a reader.
TEST_F(IioTest, ASensorOfTheKernelDeliversBlocksAndMayComeAndGo) {
  MakeSensor();
  IioDevice device("mma8452", GForceScale::G4, {m_dir, m_dir + "nodes/", m_dir + "timers/"}, {20ms, 300ms, 0ms});
  IThreadDelegate* self = this;
  device.Prepare(self);
  device.SetMounting(Mounting::Parse("y,z,x").value());
  device.Start();
  ASSERT_TRUE(WaitUntil([&] { return CountLogged("nodes/iio:device3: No such file") > 0; })) << GetLog();
  const int node = PlugIn();
  int sent = 0;
  const auto sendUntil = [&](int enough) {
    return WaitUntil([&] {
      if (blocks < enough) Send(node, std::exchange(sent, sent + 40), 40);
      return blocks >= enough;
    });
  };
  ASSERT_TRUE(sendUntil(3));
  ASSERT_TRUE(WaitUntil([&] { return CountLogged("delivers no samples") > 0; }));
  const int silent = blocks;
  EXPECT_TRUE(sendUntil(silent + 1));
  EXPECT_TRUE(WaitUntil([&] { return CountLogged("samples are coming again") > 0; }));
  device.Stop();
  close(node);
  // The board's matrix gives -0.5, -1, 0 of 1, -0.5, 0, and the mounting the second, third and first of these.
  std::vector<std::uint8_t> expected;
  for (int i = 0; i < 10; ++i) expected.insert(expected.end(), {0xE0, 0, 0xF0});
  EXPECT_EQ(last, expected);
  for (const auto& [file, text] :
       std::initializer_list<std::pair<const char*, const char*>>{{"sampling_frequency", "100"},
                                                                  {"in_accel_scale", "0.019154000"},
                                                                  {"trigger/current_trigger", "mma8452-dev3"},
                                                                  {"scan_elements/in_accel_z_en", "1"},
                                                                  {"scan_elements/in_tilt_en", "0"},
                                                                  {"current_timestamp_clock", "monotonic"},
                                                                  {"buffer/enable", "0"}}) {
    EXPECT_EQ(Get(file), text) << file;
  }
}

// Catches a message that does not say what to do.
TEST_F(IioTest, WhatIsWrongWithASensorIsNamed) {
  const struct {
    const char* wanted;
    const char* file;
    const char* text;
    const char* fault;
  } cases[] = {
      {"bma280", "name", "mma8452", "the kernel drives no sensor bma280; it has iio:device3 (mma8452)"},
      {"iio:device3", "name", "other", "has no trigger of its own"},
      {"iio:device3", "scan_elements/in_accel_y_type", "be:s12/16X3>>4", "\"be:s12/16X3>>4\", which is not known"},
      {"iio:device3", "in_accel_scale", "", "cannot read a scale"},
      {"iio:device3", "scan_elements/in_accel_z_en", nullptr, "it has no scan_elements/in_accel_z_en"},
  };
  for (const auto& c : cases) {
    MakeSensor();
    fs::remove(m_dir + "iio:device3/in_accel_scale_available");
    if (c.text != nullptr) Make(std::string("iio:device3/") + c.file, c.text);
    if (c.text == nullptr) fs::remove(m_dir + "iio:device3/" + c.file);
    IioSetup setup;
    const std::string fault = SetUpIio({m_dir, m_dir, m_dir + "none/"}, c.wanted, 4, setup);
    EXPECT_NE(fault.find(c.fault), std::string::npos) << fault;
  }
}

}  // namespace
