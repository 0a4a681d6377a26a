// The accelerometer: an MMA8451Q on an I2C bus, read block by block.
#include "Kdevice/ACC/AccDevice.h"

#include <fmt/format.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "Kbase/Klog/Logger.h"
#include "Kdevice/ACC/Mma8451.h"

namespace Kdevice::ACC {
namespace {

/// A fault that lasts longer than this is the chip's, not a disturbance on the wires.
constexpr int MaxTries = 3;
constexpr std::chrono::milliseconds TryPause{2};
/// Rounds without a block after which the chip counts as standing still, as it does after its supply broke down.
constexpr int MaxEmptyRounds = 5;

/// By OutputDataRate.
constexpr std::array<std::int64_t, 7> SamplePeriodsUs{2500, 5000, 10000, 20000, 80000, 160000, 640000};

std::uint8_t GetScaleField(GForceScale scale) {
  switch (scale) {
    case GForceScale::G2:
      return Mma8451::FS_2G;
    case GForceScale::G4:
      break;
    case GForceScale::G8:
      return Mma8451::FS_8G;
  }
  return Mma8451::FS_4G;
}

/// The chip counts its rates from 800 Hz, which is not offered here: the FIFO would be full after 40 ms.
std::uint8_t GetRateField(OutputDataRate rate) {
  return static_cast<std::uint8_t>((static_cast<std::uint8_t>(rate) + 1U) << Mma8451::DR_SHIFT);
}

}  // namespace

AccDevice::AccDevice(int bus, std::uint8_t address, GForceScale scale, OutputDataRate rate)
    : AccDevice(bus, address, scale, rate, Timing()) {}

AccDevice::AccDevice(int bus, std::uint8_t address, GForceScale scale, OutputDataRate rate, const Timing& timing)
    : AccSource("ACC", scale),
      m_bus(bus),
      m_busNumber(bus),
      m_address(address),
      m_rate(rate),
      m_timing(timing),
      m_outageLog(timing.clock, timing.logInterval),
      m_errorLog(timing.clock, timing.logInterval),
      m_overflowLog(timing.clock, timing.logInterval) {}

AccDevice::~AccDevice() {
  Stop();
}

void AccDevice::RunBefore() {
  m_isSetUp = false;
  m_failedTries = 0;
  m_toldOutage.clear();
}

void AccDevice::Run() {
  if (!m_isSetUp) {
    SetUpOrWait();
    return;
  }
  unsigned left = 0;
  Fault fault = ReadFifo(left);
  if (!fault.empty()) {
    RetryOrGiveUp(std::move(fault));
  } else {
    WaitForCancel(GetFillTime(left));
  }
}

void AccDevice::SetUpOrWait() {
  Fault fault = SetUp();
  m_isSetUp = fault.empty();
  if (m_isSetUp) {
    WaitForCancel(GetFillTime(0));
  } else if (m_failedTries > 0) {
    RetryOrGiveUp(std::move(fault));
  } else {
    NoteOutage(fault);
    WaitForCancel(m_timing.retry);
  }
}

void AccDevice::RunAfter() {
  // Without a reader the chip need not sample.
  if (m_isSetUp && !m_bus.WriteRegister(m_address, Mma8451::CTRL_REG1, Mma8451::STANDBY)) ++m_errors;
  DeliverEnd();
}

/// Leaves the chip sampling into an empty FIFO, whatever it did before.
AccDevice::Fault AccDevice::SetUp() {
  m_emptyRounds = 0;
  std::uint8_t id = 0;
  if (!m_bus.ReadRegisters(m_address, Mma8451::WHO_AM_I, {&id, 1})) return CountError();
  if (id != Mma8451::WHO_AM_I_VALUE) {
    return fmt::format("its id is {:#04x}, not {:#04x}", id, Mma8451::WHO_AM_I_VALUE);
  }
  const auto control = static_cast<std::uint8_t>(GetRateField(m_rate) | Mma8451::F_READ);
  const std::array<std::pair<std::uint8_t, std::uint8_t>, 6> settings{{
      {Mma8451::CTRL_REG1, Mma8451::STANDBY},
      {Mma8451::F_SETUP, Mma8451::F_MODE_OFF},
      {Mma8451::XYZ_DATA_CFG, GetScaleField(GetForceScale())},
      {Mma8451::CTRL_REG2, 0},
      {Mma8451::F_SETUP, Mma8451::F_MODE_CIRCULAR},
      {Mma8451::CTRL_REG1, static_cast<std::uint8_t>(control | Mma8451::ACTIVE)},
  }};
  for (const auto& [reg, value] : settings) {
    if (!m_bus.WriteRegister(m_address, reg, value)) return CountError();
  }
  return {};
}

/// Hands on every whole block of the FIFO; `left` is how many samples stay in it.
AccDevice::Fault AccDevice::ReadFifo(unsigned& left) {
  std::uint8_t status = 0;
  if (!m_bus.ReadRegisters(m_address, Mma8451::F_STATUS, {&status, 1})) return CountError();
  const unsigned held = status & Mma8451::F_CNT_MASK;
  if (held > Mma8451::FifoSamples) return fmt::format("its FIFO claims to hold {} samples", held);
  if ((status & Mma8451::F_OVF) != 0) NoteOverflow();
  const unsigned blocks = held / BlockSamples;
  left = held % BlockSamples;
  m_emptyRounds = blocks == 0 ? m_emptyRounds + 1 : 0;
  if (m_emptyRounds > MaxEmptyRounds) {
    m_failedTries = MaxTries;
    return "it delivers no samples";
  }
  Fault fault = DeliverBlocks(blocks);
  if (fault.empty() && blocks > 0) NoteSuccess();
  return fault;
}

AccDevice::Fault AccDevice::DeliverBlocks(unsigned count) {
  for (unsigned i = 0; i < count && !IsCancelled(); ++i) {
    if (!m_bus.ReadRegisters(m_address, Mma8451::OUT_X_MSB, m_native)) {
      // It may have ended within a sample, and the next byte would pass for the first axis: the FIFO begins anew.
      m_isSetUp = false;
      return CountError();
    }
    Deliver(m_native);
  }
  return {};
}

AccDevice::Fault AccDevice::CountError() {
  const int error = errno;
  ++m_errors;
  return std::generic_category().message(error);
}

void AccDevice::RetryOrGiveUp(Fault fault) {
  m_lastFault = std::move(fault);
  if (++m_failedTries < MaxTries) {
    WaitForCancel(TryPause);
    return;
  }
  m_isSetUp = false;
  m_failedTries = 0;
  NoteOutage(m_lastFault);
}

void AccDevice::NoteOverflow() {
  const std::uint64_t overflows = ++m_overflows;
  if (!m_overflowLog.Take()) return;
  Kbase::Klog::Logger::GetInstance().Warning(
      LogTag, fmt::format("accelerometer: samples were lost, the FIFO ran over ({} times so far)", overflows));
}

/// Blocks have come: ends an outage, or a fault that did not last.
void AccDevice::NoteSuccess() {
  if (!m_toldOutage.empty()) {
    Kbase::Klog::Logger::GetInstance().Info(LogTag, "accelerometer: samples are coming again");
    m_toldOutage.clear();
  } else if (m_failedTries > 0 && m_errorLog.Take()) {
    Kbase::Klog::Logger::GetInstance().Warning(
        LogTag,
        fmt::format("accelerometer: a fault passed by: {}; {} bus errors so far", m_lastFault, GetErrorCount()));
  }
  m_failedTries = 0;
}

/// One line an outage, a further one when its reason changes, and never more than one an interval.
void AccDevice::NoteOutage(const Fault& fault) {
  if (fault == m_toldOutage || !m_outageLog.Take()) return;
  m_toldOutage = fault;
  Kbase::Klog::Logger::GetInstance().Error(
      LogTag, fmt::format("accelerometer at {:#04x} of /dev/i2c-{}: {}; trying again every {} ms", m_address,
                          m_busNumber, fault, m_timing.retry.count()));
}

/// How long the samples take that a block lacks, and one more, so that the next round finds them.
AccDevice::Milliseconds AccDevice::GetFillTime(unsigned left) const {
  const std::int64_t periodUs = SamplePeriodsUs[static_cast<std::size_t>(m_rate) % SamplePeriodsUs.size()];
  return std::chrono::ceil<Milliseconds>(std::chrono::microseconds(periodUs * (BlockSamples - left + 1)));
}

}  // namespace Kdevice::ACC
