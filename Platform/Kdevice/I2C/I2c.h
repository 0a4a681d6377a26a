// Register access to the chips of one I2C bus.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "Kdevice/I2C/I2cBus.h"

namespace Kdevice::I2C {

class KernelBus;

/// Bus `bus` of the kernel (/dev/i2c-<bus>), opened at the first transfer and again after it went away. Thread-bound.
class I2c {
 public:
  explicit I2c(int bus);
  ~I2c();

  /// False with errno set, as I2cBus::Transfer; ENOENT or the like when the bus itself is not there.
  bool WriteRegister(std::uint8_t address, std::uint8_t reg, std::uint8_t value);
  /// Reads `values.size()` bytes from `reg` on; what the chip does behind one register (next one, same one) is its own.
  bool ReadRegisters(std::uint8_t address, std::uint8_t reg, std::span<std::uint8_t> values);

  /// Puts `model` in the kernel's place for bus `bus`, for every I2c of this process, those already made included; null
  /// gives the bus back to the kernel. Thread-safe.
  static void Attach(int bus, std::shared_ptr<I2cBus> model);

  I2c(const I2c&) = delete;
  I2c& operator=(const I2c&) = delete;

 private:
  bool Transfer(std::uint8_t address, std::span<const std::uint8_t> out, std::span<std::uint8_t> in);

  const int m_bus;
  /// Made when the first transfer goes to the kernel.
  std::unique_ptr<KernelBus> m_kernel;
};

}  // namespace Kdevice::I2C
