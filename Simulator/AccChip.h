// The simulated accelerometer chip.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>

#include "Kdevice/I2C/I2cBus.h"
#include "Simulator/Drive.h"
#include "Simulator/DriveClock.h"

namespace Tavi::Simulator {

/// A bus with one chip on it, which answers as an MMA8451Q does (NXP, rev. 10): its identity, standby and active mode,
/// data rate, full scale, 8-bit and 14-bit reading, and the 32-sample FIFO in circular and in fill mode. Interrupts,
/// filters and motion detection are registers that can be written and read back and do nothing.
///
/// Mounted upright: X points down and reads -1 g at rest, Y along the car (braking is negative), Z across it (a right
/// turn is positive). Each sample carries a little noise, which depends on its time only. Thread-safe.
class AccChip : public Kdevice::I2C::I2cBus {
 public:
  /// With SA0 low.
  static constexpr std::uint8_t Address = 0x1C;
  static constexpr int FifoSize = 32;

  /// Shares the drive and its clock: a reader in the middle of a transfer may outlive the car.
  AccChip(std::shared_ptr<const Drive> drive, std::shared_ptr<const DriveClock> clock);

  /// The next read of more than one byte breaks off with EIO behind so many bytes, which are out of the chip then: the
  /// rest of a sample stays for the next reader, as it does in the chip. Thread-safe.
  void BreakOffNextBurst(std::size_t afterBytes);

  bool Transfer(std::uint8_t address, std::span<const std::uint8_t> out, std::span<std::uint8_t> in) override;

 private:
  static constexpr std::size_t RegisterCount = 0x32;
  /// 14-bit values of the axes.
  using Sample = std::array<std::int16_t, 3>;

  void Reset();
  void Write(std::uint8_t reg, std::uint8_t value);
  [[nodiscard]] std::uint8_t Read(std::uint8_t reg);
  [[nodiscard]] std::uint8_t ReadStatus() const;
  [[nodiscard]] std::uint8_t ReadFifo();
  [[nodiscard]] std::uint8_t ReadLatest(std::uint8_t reg);
  /// The register that a burst goes on with.
  [[nodiscard]] std::uint8_t Next(std::uint8_t reg) const;

  void SampleUpToNow();
  [[nodiscard]] Sample SampleAt(std::int64_t timeNs) const;
  void Store(const Sample& sample);
  void Flush();

  [[nodiscard]] bool IsActive() const;
  [[nodiscard]] bool IsFastRead() const;
  [[nodiscard]] unsigned FifoMode() const;
  [[nodiscard]] std::int64_t PeriodNs() const;

  const std::shared_ptr<const Drive> m_drive;
  const std::shared_ptr<const DriveClock> m_clock;
  std::mutex m_mutex;
  std::array<std::uint8_t, RegisterCount> m_registers{};
  std::uint8_t m_pointer = 0;
  /// When the next sample is due.
  std::int64_t m_nextNs = 0;
  std::array<Sample, FifoSize> m_fifo{};
  int m_oldest = 0;
  int m_count = 0;
  /// Bytes of the oldest sample that have been read.
  int m_readBytes = 0;
  std::optional<std::size_t> m_breakOffAfter;
  Sample m_latest{};
  /// Data ready and overwritten, for the status register without FIFO.
  bool m_isReady = false;
  bool m_isOverwritten = false;
};

}  // namespace Tavi::Simulator
