// An I2C bus of the kernel, over its i2c-dev interface.
#pragma once

#include <string>

#include "Kdevice/I2C/I2cBus.h"
#include "Ksystem/FileUtils/UniqueFd.h"

namespace Kdevice::I2C {

/// The adapter behind "/dev/i2c-<bus>" (kernel documentation, "Implementing I2C device drivers in userspace"). The node
/// is opened at the first transfer, and anew by the transfer after one that failed otherwise than by a missing
/// acknowledge, so that an adapter that was unplugged or reset is found again. A transfer blocks no longer than the
/// adapter's own time-out. Thread-bound.
class KernelBus final : public I2cBus {
 public:
  explicit KernelBus(int bus);

  /// As I2cBus::Transfer; ENOENT and the like when there is no such node. At most 65535 bytes each way (EINVAL).
  bool Transfer(std::uint8_t address, std::span<const std::uint8_t> out, std::span<std::uint8_t> in) override;

 private:
  const std::string m_path;
  Ksystem::FileUtils::UniqueFd m_device;
};

}  // namespace Kdevice::I2C
