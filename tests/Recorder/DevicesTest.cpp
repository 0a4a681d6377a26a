// What is connected is found and told, on devices that exist only inside this process.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "Kdevice/I2C/I2c.h"
#include "Kdevice/I2C/I2cBus.h"
#include "Recorder/Devices/DeviceList.h"
#include "Recorder/Devices/Nodes.h"
#include "Simulator/FakeCamera.h"
#include "Support/Fixtures.h"

namespace Tavi::Recorder::Devices {
namespace {

using Simulator::FakeCamera;

/// Every address answers, only one as an accelerometer.
class OneChip final : public Kdevice::I2C::I2cBus {
  bool Transfer(std::uint8_t address, std::span<const std::uint8_t> out, std::span<std::uint8_t> in) override {
    if (!in.empty()) in[0] = address == 0x1C && out[0] == 0x0D ? 0x1A : 0x33;
    return true;
  }
};

class DevicesTest : public Testing::TempDirTest {
 protected:
  void MakeNode(const std::string& name) const {
    std::filesystem::create_directories(m_dir + "dev");
    std::ofstream(m_dir + "dev/" + name);
  }
};

TEST_F(DevicesTest, NodesComeInTheirNaturalOrderAndPortsByTheNameThatStays) {
  for (const char* name : {"ttyUSB10", "ttyUSB2", "ttyUSBx", "ttyACM0", "ttyS0", "video0"}) MakeNode(name);
  std::filesystem::create_directories(m_dir + "dev/serial/by-id");
  std::filesystem::create_symlink("../../ttyUSB2", m_dir + "dev/serial/by-id/usb-Receiver-if00");
  EXPECT_EQ(ListNodes(m_dir, {"ttyUSB", "video"}),
            (std::vector<std::string>{"/dev/ttyUSB2", "/dev/ttyUSB10", "/dev/video0"}));
  const auto ports = ListSerialPorts(m_dir);
  ASSERT_EQ(ports.size(), 3U) << "a port without hardware is none";
  EXPECT_EQ(ports[0].path, "/dev/serial/by-id/usb-Receiver-if00");
  EXPECT_EQ(ports[0].node, "/dev/ttyUSB2");
  EXPECT_EQ(ports[2].path, "/dev/ttyACM0");
}

// Catches a camera without its modes, and a scan that finds chips where other devices answer.
TEST_F(DevicesTest, CamerasAndChipsAreFoundWithWhatTheSettingsNeed) {
  if (!FakeCamera::IsPossible()) GTEST_SKIP() << "libumockdev-preload.so.0 is missing";
  FakeCamera camera;
  ASSERT_EQ(camera.PlugIn(), "");
  for (const char* name : {"i2c-1", "i2c-4"}) MakeNode(name);
  for (const char* device : {"iio:device0/in_temp_raw", "iio:device3/scan_elements/in_accel_x_en"}) {
    const std::filesystem::path file = m_dir + "sys/bus/iio/devices/" + device;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file) << "";
    std::ofstream(m_dir + "sys/bus/iio/devices/iio:device3/name") << "mma8452\n";
  }
  Kdevice::I2C::I2c::Attach(4, std::make_shared<OneChip>());
  const DeviceList devices{
      ListCameras(), {{"plughw:1,0", "Card, Input"}}, {}, ListMotionChips(m_dir), ListKernelSensors(m_dir)};
  Kdevice::I2C::I2c::Attach(4, nullptr);
  EXPECT_EQ(FormatText(devices),
            "Cameras (pipeline.camera0.device, pipeline.camera1.device)\n"
            "  /dev/video9  Fake (fake)\n    YUYV 640x480 at 25 frames/s\n"
            "Sound cards (pipeline.audio.device)\n  plughw:1,0  Card, Input\n"
            "Serial ports (pipeline.gps.path)\n  none\n"
            "Accelerometers (pipeline.acc.bus, pipeline.acc.address)\n  /dev/i2c-4  bus 4, address 28 (0x1c)\n"
            "Accelerometers of the kernel (pipeline.acc.device)\n  iio:device3  mma8452\n");
  const auto json = ToJson(devices);
  EXPECT_EQ(json["cameras"][0]["modes"][0]["rates"][0], 25.0);
  EXPECT_EQ(json["accelerometers"][0]["address"], 28);
}

}  // namespace
}  // namespace Tavi::Recorder::Devices
