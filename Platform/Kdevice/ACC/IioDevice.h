// Any accelerometer that the kernel drives, as blocks of native samples.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "Kbase/Util/Clock.h"
#include "Kdevice/ACC/AccSource.h"
#include "Kdevice/ACC/IioSensor.h"
#include "Kdevice/ACC/Resampler.h"
#include "Kdevice/ACC/Throttle.h"

namespace Kdevice::ACC {

/// Owns the thread "ACC", which reads the sensor's buffer and hands on blocks of ten samples of 100 Hz whatever rate
/// the sensor keeps: its samples are placed by their own time where the driver tells it, else evenly over the time that
/// they have come in. A sensor that is missing, goes away or falls silent is set up anew once a second. Each outage is
/// one line in the log and its end another, at most one outage an interval.
///
/// GetErrorCount and GetOverflowCount are thread-safe. Stopping takes up to a tenth of a second.
class IioDevice final : public AccSource {
 public:
  struct Timing {
    /// Between two attempts to set the sensor up.
    Milliseconds retry{1000};
    /// Without a sample for so long it counts as standing still.
    Milliseconds silence{2000};
    /// Between two log lines of one kind.
    Milliseconds logInterval{60000};
    /// What intervals are measured with; borrowed.
    Kbase::Util::IClock& clock = Kbase::Util::IClock::Steady();
  };

  /// `sensor`: "iio:device0", or the name that its driver gives it. Nothing is touched before Start.
  IioDevice(std::string sensor, GForceScale scale);
  IioDevice(std::string sensor, GForceScale scale, IioPlaces places, const Timing& timing);
  ~IioDevice() override;

  /// Attempts to set the sensor up, and reads, that failed.
  [[nodiscard]] std::uint64_t GetErrorCount() const override { return m_errors; }
  /// Gaps between samples.
  [[nodiscard]] std::uint64_t GetOverflowCount() const override { return m_gaps; }

 protected:
  void RunBefore() override;
  void Run() override;
  void RunAfter() override;

 private:
  void SetUp();
  void Take();
  void Append(const Mounting::Vector& g);
  void NoteSuccess();
  void NoteOutage(const std::string& fault);

  const std::string m_name;
  const Timing m_timing;
  std::atomic<std::uint64_t> m_errors{0};
  std::atomic<std::uint64_t> m_gaps{0};

  // The thread's own.
  IioSensor m_sensor;
  Resampler m_resampler;
  bool m_isSetUp = false;
  bool m_hasSamples = false;
  std::vector<IioSensor::Sample> m_samples;
  /// When the last samples came.
  Milliseconds m_lastCame{0};
  /// The block that is being filled.
  std::array<std::uint8_t, BlockBytes> m_native{};
  std::size_t m_held = 0;
  /// What the log was told about the present outage, empty when nothing.
  std::string m_toldOutage;
  Throttle m_outageLog;
};

}  // namespace Kdevice::ACC
