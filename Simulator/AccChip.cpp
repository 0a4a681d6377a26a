// The simulated accelerometer chip.
#include "Simulator/AccChip.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <utility>

namespace Tavi::Simulator {
namespace {

// Register addresses and bits: MMA8451Q data sheet, table "Register address map" and the registers' own sections.
constexpr std::uint8_t Status = 0x00;
constexpr std::uint8_t OutXMsb = 0x01;
constexpr std::uint8_t OutZMsb = 0x05;
constexpr std::uint8_t OutZLsb = 0x06;
constexpr std::uint8_t FifoSetup = 0x09;
constexpr std::uint8_t TriggerConfig = 0x0A;
constexpr std::uint8_t SystemMode = 0x0B;
constexpr std::uint8_t InterruptSource = 0x0C;
constexpr std::uint8_t WhoAmI = 0x0D;
constexpr std::uint8_t DataConfig = 0x0E;
constexpr std::uint8_t OrientationStatus = 0x10;
constexpr std::uint8_t Control1 = 0x2A;
constexpr std::uint8_t Control2 = 0x2B;
constexpr std::uint8_t LastRegister = 0x31;

constexpr std::uint8_t Identity = 0x1A;
constexpr std::uint8_t Overflow = 0x80;
constexpr std::uint8_t Watermark = 0x40;
constexpr std::uint8_t WatermarkMask = 0x3F;
constexpr std::uint8_t Active = 0x01;
constexpr std::uint8_t FastRead = 0x02;
constexpr std::uint8_t SoftReset = 0x40;

constexpr unsigned FillMode = 2;

/// By the data rate bits of CTRL_REG1: 800, 400, 200, 100, 50, 12.5, 6.25 and 1.5625 Hz.
constexpr std::int64_t PeriodsNs[] = {1'250'000,  2'500'000,  5'000'000,   10'000'000,
                                      20'000'000, 80'000'000, 160'000'000, 640'000'000};

constexpr double StandardGravity = 9.80665;
constexpr double NoiseG = 0.012;
constexpr int Largest = 8191;

/// In [-1, 1], by time and axis alone.
double Noise(std::int64_t timeNs, unsigned axis) {
  std::uint64_t hash = (static_cast<std::uint64_t>(timeNs) * 3 + axis) * 0x9e3779b97f4a7c15U;
  hash = (hash ^ (hash >> 31)) * 0xbf58476d1ce4e5b9U;
  return static_cast<double>(hash >> 40) / double(1 << 23) - 1;
}

bool IsReadOnly(std::uint8_t reg) {
  return reg <= OutZLsb || reg == SystemMode || reg == InterruptSource || reg == WhoAmI || reg == OrientationStatus;
}

}  // namespace

AccChip::AccChip(std::shared_ptr<const Drive> drive, std::shared_ptr<const DriveClock> clock)
    : m_drive(std::move(drive)), m_clock(std::move(clock)) {
  Reset();
}

bool AccChip::Transfer(std::uint8_t address, std::span<const std::uint8_t> out, std::span<std::uint8_t> in) {
  if (address != Address) {
    errno = ENXIO;
    return false;
  }
  const std::lock_guard lock(m_mutex);
  SampleUpToNow();
  if (!out.empty()) m_pointer = out.front();
  for (const std::uint8_t value : out.subspan(std::min<std::size_t>(1, out.size()))) {
    Write(m_pointer, value);
    m_pointer = Next(m_pointer);
  }
  const bool breaksOff = m_breakOffAfter && in.size() > 1;
  for (std::uint8_t& value : breaksOff ? in.first(std::min(*m_breakOffAfter, in.size())) : in) {
    value = Read(m_pointer);
    m_pointer = Next(m_pointer);
  }
  if (!breaksOff) return true;
  m_breakOffAfter.reset();
  errno = EIO;
  return false;
}

void AccChip::BreakOffNextBurst(std::size_t afterBytes) {
  const std::lock_guard lock(m_mutex);
  m_breakOffAfter = afterBytes;
}

void AccChip::Reset() {
  m_registers.fill(0);
  m_registers[WhoAmI] = Identity;
  Flush();
}

/// Data rate, full scale and the like can be changed in standby only, except for the FIFO's setup.
void AccChip::Write(std::uint8_t reg, std::uint8_t value) {
  if (reg >= RegisterCount || IsReadOnly(reg)) return;
  if (reg == Control2 && (value & SoftReset) != 0) return Reset();
  if (reg == Control1) {
    const bool wasActive = IsActive();
    m_registers[reg] = wasActive && (value & Active) != 0 ? m_registers[reg] : value;
    if (wasActive || !IsActive()) return;
    Flush();
    m_nextNs = m_clock->NowNs() + PeriodNs();
  } else if (reg == FifoSetup) {
    m_registers[reg] = value;
    if (FifoMode() == 0) Flush();
  } else if (!IsActive() || reg == TriggerConfig) {
    m_registers[reg] = value;
  }
}

std::uint8_t AccChip::Read(std::uint8_t reg) {
  if (reg == Status) return ReadStatus();
  if (reg == SystemMode) return IsActive() ? 1 : 0;
  if (reg == OutXMsb && FifoMode() != 0) return ReadFifo();
  if (reg > Status && reg <= OutZLsb) return FifoMode() != 0 ? 0 : ReadLatest(reg);
  return reg < RegisterCount ? m_registers[reg] : 0;
}

/// With the FIFO: that it is full, that it holds as many samples as were asked for, and how many. Without: new data and
/// lost data, for all axes alike.
std::uint8_t AccChip::ReadStatus() const {
  if (FifoMode() == 0) return static_cast<std::uint8_t>((m_isReady ? 0x0F : 0) | (m_isOverwritten ? 0xF0 : 0));
  const int wanted = m_registers[FifoSetup] & WatermarkMask;
  unsigned status = static_cast<unsigned>(m_count);
  if (m_count == FifoSize) status |= Overflow;
  if (wanted > 0 && m_count >= wanted) status |= Watermark;
  return static_cast<std::uint8_t>(status);
}

/// The next byte of the oldest sample; 0 when there is none. The sample goes with its last byte.
std::uint8_t AccChip::ReadFifo() {
  if (m_count == 0) return 0;
  const int bytesPerAxis = IsFastRead() ? 1 : 2;
  const std::size_t axis = static_cast<std::size_t>(m_readBytes / bytesPerAxis);
  const auto bits = static_cast<std::uint16_t>(m_fifo[static_cast<std::size_t>(m_oldest)][axis] * 4);
  const bool isLow = m_readBytes % bytesPerAxis == 1;
  if (++m_readBytes == 3 * bytesPerAxis) {
    m_oldest = (m_oldest + 1) % FifoSize;
    --m_count;
    m_readBytes = 0;
  }
  return static_cast<std::uint8_t>(isLow ? bits : bits >> 8);
}

std::uint8_t AccChip::ReadLatest(std::uint8_t reg) {
  m_isReady = m_isOverwritten = false;
  const auto bits = static_cast<std::uint16_t>(m_latest[static_cast<std::size_t>(reg - OutXMsb) / 2] * 4);
  return static_cast<std::uint8_t>((reg - OutXMsb) % 2 == 1 ? bits : bits >> 8);
}

/// The data registers are a loop of their own: with the FIFO the first one stays, with fast reading the low bytes are
/// skipped, and behind the last one comes the status again.
std::uint8_t AccChip::Next(std::uint8_t reg) const {
  if (reg == OutXMsb && FifoMode() != 0) return reg;
  if (reg == OutZLsb || (reg == OutZMsb && IsFastRead())) return Status;
  if (reg >= OutXMsb && reg < OutZMsb && IsFastRead()) return static_cast<std::uint8_t>(reg + 2);
  return reg >= LastRegister ? WhoAmI : static_cast<std::uint8_t>(reg + 1);
}

/// Catches up with the clock. Of a long pause only what the FIFO can hold is worked out.
void AccChip::SampleUpToNow() {
  if (!IsActive()) return;
  const std::int64_t nowNs = m_clock->NowNs();
  const std::int64_t due = nowNs < m_nextNs ? 0 : (nowNs - m_nextNs) / PeriodNs() + 1;
  const bool isFilling = FifoMode() == FillMode;
  const std::int64_t skipped = isFilling ? 0 : std::max<std::int64_t>(0, due - FifoSize);
  const std::int64_t endNs = m_nextNs + due * PeriodNs();
  m_nextNs += skipped * PeriodNs();
  if (skipped > 0) m_isOverwritten = true;
  for (; m_nextNs < endNs && !(isFilling && m_count == FifoSize); m_nextNs += PeriodNs()) Store(SampleAt(m_nextNs));
  m_nextNs = endNs;
}

AccChip::Sample AccChip::SampleAt(std::int64_t timeNs) const {
  const DriveState state = m_drive->At(static_cast<double>(timeNs) / 1e9);
  const double g[] = {-1.0, state.longitudinalMps2 / StandardGravity, state.lateralMps2 / StandardGravity};
  // 00 +-2 g, 01 +-4 g, 10 +-8 g; 11 is reserved.
  const int fullScale = 2 << std::min(m_registers[DataConfig] & 3, 2);
  Sample sample{};
  for (unsigned axis = 0; axis < sample.size(); ++axis) {
    const double counts = (g[axis] + NoiseG * Noise(timeNs, axis)) * (Largest + 1) / fullScale;
    sample[axis] = static_cast<std::int16_t>(std::clamp<long>(std::lround(counts), -Largest - 1, Largest));
  }
  return sample;
}

/// A sample that finds the FIFO full takes the place of the oldest one.
void AccChip::Store(const Sample& sample) {
  m_isOverwritten = m_isOverwritten || m_isReady;
  m_isReady = true;
  m_latest = sample;
  if (FifoMode() == 0) return;
  if (m_count == FifoSize) {
    m_oldest = (m_oldest + 1) % FifoSize;
    --m_count;
    m_readBytes = 0;
  }
  m_fifo[static_cast<std::size_t>((m_oldest + m_count) % FifoSize)] = sample;
  ++m_count;
}

void AccChip::Flush() {
  m_isReady = m_isOverwritten = false;
  m_oldest = m_count = m_readBytes = 0;
}

bool AccChip::IsActive() const {
  return (m_registers[Control1] & Active) != 0;
}

bool AccChip::IsFastRead() const {
  return (m_registers[Control1] & FastRead) != 0;
}

/// 0 off, 1 circular, 2 fill, 3 circular until a trigger, of which there is none here.
unsigned AccChip::FifoMode() const {
  return m_registers[FifoSetup] >> 6;
}

std::int64_t AccChip::PeriodNs() const {
  return PeriodsNs[m_registers[Control1] >> 3 & 7];
}

}  // namespace Tavi::Simulator
