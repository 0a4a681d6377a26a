// Any accelerometer that the kernel drives, as blocks of native samples.
#include "Kdevice/ACC/IioDevice.h"

#include <fmt/format.h>

#include <utility>

#include "Kbase/Klog/Logger.h"
#include "Kbase/UtilAcc/UtilAcc.h"

namespace Kdevice::ACC {
namespace {

using Kbase::Klog::Logger;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr milliseconds LongestWait{100};
/// A sensor's 4 g may be 3.98 in whole numbers.
constexpr double NearlyFull = 0.97;

}  // namespace

IioDevice::IioDevice(std::string sensor, GForceScale scale) : IioDevice(std::move(sensor), scale, {}, Timing()) {}

IioDevice::IioDevice(std::string sensor, GForceScale scale, IioPlaces places, const Timing& timing)
    : AccSource("ACC", scale),
      m_name(std::move(sensor)),
      m_timing(timing),
      m_sensor(std::move(places)),
      m_resampler([this](const Mounting::Vector& g) { Append(g); }),
      m_outageLog(timing.clock, timing.logInterval) {}

IioDevice::~IioDevice() {
  Stop();
}

void IioDevice::RunBefore() {
  m_isSetUp = false;
  m_toldOutage.clear();
}

void IioDevice::Run() {
  if (!m_isSetUp) {
    SetUp();
    if (!m_isSetUp) WaitForCancel(m_timing.retry);
    return;
  }
  std::string fault = m_sensor.Read(LongestWait, m_samples);
  const milliseconds now = m_timing.clock.Now();
  if (fault.empty() && m_samples.empty() && now - m_lastCame >= m_timing.silence) fault = "it delivers no samples";
  if (!fault.empty()) {
    m_isSetUp = false;
    m_sensor.Close();
    NoteOutage(fault);
  } else if (!m_samples.empty()) {
    Take();
  }
}

void IioDevice::RunAfter() {
  // Without a reader it need not sample.
  m_sensor.Close();
  DeliverEnd();
}

void IioDevice::SetUp() {
  const int wantedG = GetScale();
  const std::string fault = m_sensor.Open(m_name, wantedG);
  if (!fault.empty()) {
    NoteOutage(fault);
    return;
  }
  m_isSetUp = true;
  m_hasSamples = false;
  m_held = 0;
  m_resampler.Restart();
  m_lastCame = m_timing.clock.Now();
  const auto& setup = m_sensor.GetSetup();
  if (!m_toldOutage.empty()) return;
  Logger::GetInstance().Info(LogTag, fmt::format("accelerometer {} ({}): {:.4g} samples a second, up to {:.3g} g",
                                                 setup.device, setup.name, setup.rateHz, setup.rangeG));
  if (setup.rangeG >= wantedG * NearlyFull) return;
  Logger::GetInstance().Warning(LogTag, fmt::format("accelerometer {} measures up to {:.3g} g only, not {}",
                                                    setup.device, setup.rangeG, wantedG));
}

/// Samples without a time of their own are placed evenly between the reads.
void IioDevice::Take() {
  const milliseconds now = m_timing.clock.Now();
  const auto count = static_cast<std::int64_t>(m_samples.size());
  // What has gathered while nobody read the first time counts as of the usual rate.
  const nanoseconds since = m_hasSamples ? nanoseconds(now - m_lastCame) : Resampler::Period * count;
  std::int64_t i = 0;
  for (const auto& sample : m_samples) {
    const nanoseconds placed = nanoseconds(now) - since + since * ++i / count;
    if (!m_resampler.Feed(sample.at.value_or(placed), sample.g)) {
      ++m_gaps;
      m_held = 0;
    }
  }
  m_lastCame = now;
  m_hasSamples = true;
  NoteSuccess();
}

void IioDevice::Append(const Mounting::Vector& g) {
  // Turned before they lose their decimals, so that the block need not be turned any more.
  for (const float value : GetMounting().Turn(g))
    m_native[m_held++] = Kbase::UtilAcc::AccFloatToNative(value, GetScale());
  if (m_held < m_native.size()) return;
  m_held = 0;
  DeliverTurned(m_native);
}

void IioDevice::NoteSuccess() {
  if (m_toldOutage.empty()) return;
  Logger::GetInstance().Info(LogTag, "accelerometer " + m_name + ": samples are coming again");
  m_toldOutage.clear();
}

/// One line an outage, a further one when its reason changes, and never more than one an interval.
void IioDevice::NoteOutage(const std::string& fault) {
  ++m_errors;
  if (fault == m_toldOutage || !m_outageLog.Take()) return;
  m_toldOutage = fault;
  Logger::GetInstance().Error(
      LogTag, fmt::format("accelerometer {}: {}; trying again every {} ms", m_name, fault, m_timing.retry.count()));
}

}  // namespace Kdevice::ACC
