// What answers the transfers of one I2C bus.
#pragma once

#include <cstdint>
#include <span>

namespace Kdevice::I2C {

/// One bus. The kernel's adapter is one; a chip model can stand in its place (I2c::Attach).
class I2cBus {
 public:
  virtual ~I2cBus() = default;

  /// One combined transfer with the chip at the 7-bit `address`: writes `out`, then, after a repeated start and unless
  /// it is empty, reads as many bytes as `in` holds. False, with errno set, when the chip does not acknowledge (ENXIO)
  /// or the bus fails (EIO, ETIMEDOUT and so on). Called by one thread at a time for one I2c; several I2c may share a
  /// bus.
  virtual bool Transfer(std::uint8_t address, std::span<const std::uint8_t> out, std::span<std::uint8_t> in) = 0;
};

}  // namespace Kdevice::I2C
