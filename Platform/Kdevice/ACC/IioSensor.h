// An accelerometer of the kernel's Industrial I/O subsystem, read through its buffer.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Kdevice/ACC/Mounting.h"
#include "Ksystem/FileUtils/UniqueFd.h"

namespace Kdevice::ACC {

/// Where the kernel shows its sensors; tests have directories of their own. Each ends with "/".
struct IioPlaces {
  std::string devices = "/sys/bus/iio/devices/";
  std::string nodes = "/dev/";
  /// Where timers that make a sensor sample are created (configfs, module iio-trig-hrtimer).
  std::string timers = "/sys/kernel/config/iio/triggers/hrtimer/";
};

/// How one value lies in a record of the buffer (kernel ABI, sysfs-bus-iio: scan_elements/…_type and …_index).
struct IioField {
  int index = 0;
  /// "le:s12/16>>4": least significant byte first, signed, 12 bits out of 16, behind 4 that mean nothing.
  bool isBigEndian = false;
  bool isSigned = false;
  unsigned bits = 0;
  unsigned bytes = 0;
  unsigned shift = 0;
  /// From the record's begin.
  std::size_t offset = 0;

  /// Of a type's text; empty for anything else than one number of at most 64 bits.
  static std::optional<IioField> Parse(const std::string& type);
  [[nodiscard]] std::int64_t Read(std::span<const std::uint8_t> record) const;
};

/// What the sysfs tells of a sensor that was set up.
struct IioSetup {
  /// "iio:device0", and the driver's name for it.
  std::string device;
  std::string name;
  std::array<IioField, 3> axes;
  std::optional<IioField> timestamp;
  std::size_t recordBytes = 0;
  /// g of a raw value: (raw + offset) * scale.
  std::array<double, 3> scale{};
  std::array<double, 3> offset{};
  /// How the sensor sits on its board, as its driver knows.
  std::array<Mounting::Vector, 3> mountMatrix{{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}};
  /// What was chosen, samples a second and g; 0 where the driver does not tell.
  double rateHz = 0.0;
  double rangeG = 0.0;
};

/// Finds the accelerometer `wanted` ("iio:device0", or its driver's name for it), sets it to about 100 Hz and the
/// smallest range of at least `fullScaleG`, and starts its buffer with the three axes and the time of each sample in
/// it. Empty, else what went wrong and with which file. Blocks on the kernel for milliseconds.
[[nodiscard]] std::string SetUpIio(const IioPlaces& places, const std::string& wanted, int fullScaleG, IioSetup& setup);
/// Stops its buffer, and with it the sensor.
void StopIio(const IioPlaces& places, const IioSetup& setup);

/// The open buffer of one sensor. Thread-bound.
class IioSensor {
 public:
  struct Sample {
    /// By the monotonic clock where the driver gives the time, else empty.
    std::optional<std::chrono::nanoseconds> at;
    Mounting::Vector g{};
  };

  explicit IioSensor(IioPlaces places) : m_places(std::move(places)) {}
  ~IioSensor() { Close(); }
  IioSensor(const IioSensor&) = delete;
  IioSensor& operator=(const IioSensor&) = delete;

  /// See SetUpIio. Empty, else what went wrong.
  [[nodiscard]] std::string Open(const std::string& wanted, int fullScaleG);
  void Close();
  /// Waits up to `timeout` for samples and puts all that are there into `samples`, which may stay empty. Empty, else
  /// what went wrong: the sensor is to be opened anew.
  [[nodiscard]] std::string Read(std::chrono::milliseconds timeout, std::vector<Sample>& samples);
  [[nodiscard]] const IioSetup& GetSetup() const { return m_setup; }

 private:
  [[nodiscard]] Sample Decode(std::span<const std::uint8_t> record) const;

  const IioPlaces m_places;
  IioSetup m_setup;
  Ksystem::FileUtils::UniqueFd m_node;
  /// What was read; less than a record may be left of it.
  std::vector<std::uint8_t> m_bytes;
  std::size_t m_held = 0;
};

}  // namespace Kdevice::ACC
