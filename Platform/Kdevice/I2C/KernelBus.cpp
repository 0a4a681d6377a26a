// An I2C bus of the kernel, over its i2c-dev interface.
#include "Kdevice/I2C/KernelBus.h"

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>

#include <array>
#include <cerrno>
#include <limits>

namespace Kdevice::I2C {
namespace {

using Ksystem::FileUtils::UniqueFd;

constexpr std::size_t MaxMessageBytes = std::numeric_limits<decltype(i2c_msg::len)>::max();

/// Adapters report a missing acknowledge in two ways (kernel documentation, I2C/SMBus fault codes; EREMOTEIO is older).
bool IsMissingAcknowledge(int error) {
  return error == ENXIO || error == EREMOTEIO;
}

/// As ioctl, with the number of messages done held to be all or a failure.
bool Submit(int device, i2c_rdwr_ioctl_data& transfer) {
  const int done = ::ioctl(device, I2C_RDWR, &transfer);
  if (done >= 0 && static_cast<unsigned>(done) < transfer.nmsgs) errno = EIO;
  return done >= 0 && static_cast<unsigned>(done) >= transfer.nmsgs;
}

}  // namespace

KernelBus::KernelBus(int bus) : m_path("/dev/i2c-" + std::to_string(bus)) {}

bool KernelBus::Transfer(std::uint8_t address, std::span<const std::uint8_t> out, std::span<std::uint8_t> in) {
  if (out.size() > MaxMessageBytes || in.size() > MaxMessageBytes) {
    errno = EINVAL;
    return false;
  }
  if (!m_device.IsValid()) m_device = UniqueFd::Open(m_path, O_RDWR);
  if (!m_device.IsValid()) return false;

  std::array<i2c_msg, 2> messages{};
  unsigned count = 0;
  // The kernel does not write to the buffer of a message that is not a read.
  const auto outSize = static_cast<std::uint16_t>(out.size());
  if (!out.empty()) messages[count++] = {address, 0, outSize, const_cast<std::uint8_t*>(out.data())};
  if (!in.empty()) messages[count++] = {address, I2C_M_RD, static_cast<std::uint16_t>(in.size()), in.data()};
  i2c_rdwr_ioctl_data transfer{messages.data(), count};
  if (Submit(m_device.Get(), transfer)) return true;

  const int error = errno;
  if (!IsMissingAcknowledge(error)) m_device = UniqueFd();
  errno = error;
  return false;
}

}  // namespace Kdevice::I2C
