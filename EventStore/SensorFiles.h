// The sensor files of an event, read back into records along the event's time line.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Tavi::EventTools {

/// Where a stream lies on the time line: its entry n is at seconds[n], or, where there is no such number, an interval
/// of the rate behind the one before it. Without any, at fromSeconds + n / rate.
struct TimeBase {
  /// Of the first entry, in seconds relative to the event.
  double fromSeconds = 0.0;
  /// Entries a second, above 0.
  double rate = 1.0;
  /// When each entry was, as its companion tells; may be fewer than there are.
  std::vector<double> seconds = {};
  /// What else the companion has of each entry; as many.
  std::vector<std::string> notes = {};
};

/// When entry `index` was, in seconds relative to the event. `part`: how far it is on the way to the next entry.
double GetEntrySeconds(const TimeBase& base, std::size_t index, double part = 0.0);

/// Puts into `base` what the text of a companion (".times") tells; nothing when it is none. Reentrant.
void ReadCompanion(std::string_view companion, TimeBase& base);

/// One entry of the receiver. Without a valid position everything but `secondsFromEvent` is unset.
struct Fix {
  double secondsFromEvent = 0.0;
  bool isValid = false;
  /// The receiver's own time of the fix, Unix time in milliseconds.
  std::int64_t utcMs = 0;
  /// Decimal degrees, north and east positive.
  double latitude = 0.0;
  double longitude = 0.0;
  double speedKnots = 0.0;
  /// Over ground, clockwise from north.
  double courseDegrees = 0.0;
  /// Corrected by another station: differential or kinematic.
  bool isDifferential = false;
  /// Horizontal dilution of precision; empty where nothing tells it, as in events of older recorders.
  std::optional<double> hdop = {};
  /// In use.
  std::optional<int> satellites = {};
  /// Above mean sea level.
  std::optional<double> altitudeMetres = {};
};

/// One sample of the three axes in g. Gravity is taken off the first one, so that all are 0 at rest in the unit's
/// mounting.
struct AccSample {
  double secondsFromEvent = 0.0;
  std::array<double, 3> g{};
};

/// One sample of the machine's state; empty where the file has no usable number.
struct MetricSample {
  double secondsFromEvent = 0.0;
  std::optional<int> cpuPercent;
  /// Empty also for 0, which stands for "not known".
  std::optional<int> temperatureCelsius;
};

/// What could be read, and what was wrong with the rest: empty when the file is whole.
template <typename Record>
struct SensorRecords {
  std::vector<Record> records;
  std::string problem;
};

/// In a block of the accelerometer's file.
inline constexpr std::size_t SamplesOfBlock = 10;

/// Each takes a file's whole content, gives the whole entries up to the first damage, and says in `problem` what that
/// is. Whatever the bytes are, nothing is thrown but std::bad_alloc. Reentrant.
SensorRecords<Fix> ParseGps(std::string_view bytes, const TimeBase& base);
/// Blocks of ten samples: `base.rate` counts blocks, each sample has its own tenth of a block's time. `fullScaleG`: as
/// the event's description has it.
SensorRecords<AccSample> ParseAcc(std::string_view bytes, const TimeBase& base, int fullScaleG = 4);
SensorRecords<MetricSample> ParseOther(std::string_view bytes, const TimeBase& base);

}  // namespace Tavi::EventTools
