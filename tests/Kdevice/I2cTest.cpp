// The I2C bus over the kernel's interface, which umockdev answers in the kernel's place.
#include <gtest/gtest.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <umockdev.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>

#include "Kdevice/I2C/I2c.h"
#include "Simulator/FakeCamera.h"

namespace {

constexpr const char* Device = "/dev/i2c-97";

std::atomic<int> g_error{0};
/// What was last written, its first two bytes.
std::array<std::atomic<std::uint8_t>, 2> g_out;

/// One chip at 0x1C, each register of which holds its own number.
gboolean AnswerTransfer(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer) noexcept {
  g_autoptr(UMockdevIoctlData) transfer =
      umockdev_ioctl_data_resolve(umockdev_ioctl_client_get_arg(client), 0, sizeof(i2c_rdwr_ioctl_data), nullptr);
  const unsigned count = reinterpret_cast<i2c_rdwr_ioctl_data*>(transfer->data)->nmsgs;
  g_autoptr(UMockdevIoctlData) messages = umockdev_ioctl_data_resolve(transfer, 0, count * sizeof(i2c_msg), nullptr);
  int error = umockdev_ioctl_client_get_request(client) == I2C_RDWR ? g_error.load() : ENOTTY;
  for (unsigned i = 0; i < count && error == 0; ++i) {
    const auto& message = reinterpret_cast<i2c_msg*>(messages->data)[i];
    const auto at = static_cast<gsize>(reinterpret_cast<const guint8*>(&message.buf) - messages->data);
    g_autoptr(UMockdevIoctlData) bytes = umockdev_ioctl_data_resolve(messages, at, message.len, nullptr);
    const bool isRead = (message.flags & I2C_M_RD) != 0;
    for (unsigned k = 0; k < message.len; ++k) {
      isRead ? bytes->data[k] = static_cast<guint8>(g_out[0] + k) : g_out[k] = bytes->data[k];
    }
    if (message.addr != 0x1C) error = ENXIO;
  }
  umockdev_ioctl_client_complete(client, error == 0 ? static_cast<glong>(count) : -1, error);
  return TRUE;
}

TEST(KernelBus, TransfersAreCombinedAndADeadBusIsOpenedAnew) {
  if (!Tavi::Simulator::FakeCamera::IsPossible()) GTEST_SKIP() << "libumockdev-preload.so.0 is missing";
  Kdevice::I2C::I2c bus(97);
  const auto read = [&](std::uint8_t address) {
    std::uint8_t values[2] = {};
    return bus.ReadRegisters(address, 0x0D, values) ? values[0] << 8 | values[1] : -errno;
  };
  EXPECT_EQ(read(0x1C), -ENOENT);
  g_autoptr(UMockdevTestbed) testbed = umockdev_testbed_new();
  g_autoptr(UMockdevIoctlBase) handler = umockdev_ioctl_base_new();
  g_signal_connect(handler, "handle-ioctl", G_CALLBACK(AnswerTransfer), nullptr);
  umockdev_testbed_add_from_string(testbed, "P: /devices/i2c-97\nN: i2c-97\nE: SUBSYSTEM=i2c-dev\n\n", nullptr);
  ASSERT_TRUE(umockdev_testbed_attach_ioctl(testbed, Device, handler, nullptr));
  EXPECT_TRUE(bus.WriteRegister(0x1C, 0x0E, 0x5A));
  EXPECT_EQ(g_out[0] << 8 | g_out[1], 0x0E5A);
  EXPECT_EQ(read(0x1C), 0x0D0E);

  EXPECT_EQ(std::remove((std::string(std::getenv("UMOCKDEV_DIR")) + Device).c_str()), 0);
  EXPECT_EQ(read(0x1D), -ENXIO);
  EXPECT_EQ(read(0x1C), 0x0D0E) << "a missing acknowledge leaves the bus open";
  g_error = ENODEV;
  EXPECT_EQ(read(0x1C), -ENODEV);
  EXPECT_EQ(read(0x1C), -ENOENT) << "the dead descriptor is not used again";
}

}  // namespace
