// The accelerometer: an MMA8451Q on an I2C bus, read block by block.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>

#include "Kbase/Util/Clock.h"
#include "Kdevice/ACC/AccSource.h"
#include "Kdevice/ACC/Throttle.h"
#include "Kdevice/I2C/I2c.h"

namespace Kdevice::ACC {

/// Samples a second.
enum class OutputDataRate : std::uint8_t { Hz400, Hz200, Hz100, Hz50, Hz12_5, Hz6_25, Hz1_56 };

/// Owns the thread "ACC", which sets the chip up, empties its FIFO about once a block and hands on blocks of ten
/// samples (30 bytes). A chip that stays silent, is none of its kind or delivers nothing is set up anew, once a second,
/// until samples come again; at once where reading samples failed, because it may have ended between two axes. Each
/// outage is one line in the log and its end another, at most one outage an interval.
///
/// GetScale, GetErrorCount and GetOverflowCount are thread-safe. Stopping takes no longer than one transfer.
class AccDevice : public AccSource {
 public:
  struct Timing {
    /// Between two attempts to set the chip up.
    Milliseconds retry{1000};
    /// Between two log lines of one kind.
    Milliseconds logInterval{60000};
    /// What the log interval is measured with; borrowed.
    Kbase::Util::IClock& clock = Kbase::Util::IClock::Steady();
  };

  /// The chip at the 7-bit `address` (0x1C or 0x1D, by its pin SA0) of bus `bus`. Nothing is transferred before Start.
  AccDevice(int bus, std::uint8_t address, GForceScale scale, OutputDataRate rate);
  AccDevice(int bus, std::uint8_t address, GForceScale scale, OutputDataRate rate, const Timing& timing);
  ~AccDevice() override;

  [[nodiscard]] std::uint64_t GetErrorCount() const override { return m_errors; }
  /// How often the FIFO was found to have lost samples.
  [[nodiscard]] std::uint64_t GetOverflowCount() const override { return m_overflows; }

 protected:
  void RunBefore() override;
  void Run() override;
  void RunAfter() override;

 private:
  /// What went wrong, empty when nothing did.
  using Fault = std::string;

  [[nodiscard]] Fault SetUp();
  [[nodiscard]] Fault ReadFifo(unsigned& left);
  [[nodiscard]] Fault DeliverBlocks(unsigned count);
  [[nodiscard]] Fault CountError();
  void SetUpOrWait();
  void RetryOrGiveUp(Fault fault);
  void NoteOverflow();
  void NoteSuccess();
  void NoteOutage(const Fault& fault);
  [[nodiscard]] Milliseconds GetFillTime(unsigned left) const;

  I2C::I2c m_bus;
  const int m_busNumber;
  const std::uint8_t m_address;
  const OutputDataRate m_rate;
  const Timing m_timing;
  std::atomic<std::uint64_t> m_errors{0};
  std::atomic<std::uint64_t> m_overflows{0};

  // The thread's own.
  bool m_isSetUp = false;
  int m_failedTries = 0;
  int m_emptyRounds = 0;
  Fault m_lastFault;
  /// What the log was told about the present outage, empty when nothing.
  Fault m_toldOutage;
  Throttle m_outageLog;
  Throttle m_errorLog;
  Throttle m_overflowLog;
  std::array<std::uint8_t, BlockBytes> m_native{};
};

}  // namespace Kdevice::ACC
