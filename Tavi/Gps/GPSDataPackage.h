// The sentences of one receiver epoch, gathered into one fix record.
#pragma once

#include <cstdint>
#include <ctime>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include "Tavi/Gps/GPSLine.h"
#include "Tavi/Gps/GpsData.h"

namespace Tavi::Gps {

static_assert(sizeof(std::time_t) == 8, "build with -D_TIME_BITS=64, as the library is: times end in 2038 otherwise");

/// Trip statistics since the process started.
struct GpsRouteState {
  std::int32_t stopCount = 0;
  std::int32_t moveCount = 0;
  std::int32_t highSpeedCount = 0;
  std::int32_t lowSpeedCount = 0;
  /// Knots.
  double maxSpeed = 0.0;
  /// Knots as the previous package's record had them, whether they were believed or not.
  double lastSpeed = 0.0;
  /// Metres.
  double distance = 0.0;
};

/// Lives for one epoch: lines are added, then `PostProcess` is called once. Owns the lines and, until `ReleaseData`,
/// the record. Thread-bound, and since all packages share the trip statistics, all to the same thread.
class GPSDataPackage {
 public:
  GPSDataPackage();
  GPSDataPackage(const GPSDataPackage&) = delete;
  GPSDataPackage& operator=(const GPSDataPackage&) = delete;
  ~GPSDataPackage() = default;

  /// Keeps a copy of `line` and loads it. Lines that are not in order change nothing.
  void AddLine(GPSLine& line);
  /// The same with a sentence's text, NUL-terminated, from its "$" on. Only one that the record is made of is read:
  /// most of an epoch tells of satellites.
  void AddText(char* text);
  /// Fills the record from an RMC or a GGA sentence. A number that is there but cannot be read makes an RMC's fix not
  /// valid; where a GGA has none to read, the record keeps what it has.
  void Load(GPSLine line);
  /// Withdraws a fix whose horizontal dilution of precision is above 10, or unknown, then calls `BuildRoute`.
  void PostProcess();
  /// Adds this epoch to the trip statistics, as one second of it, and copies them into the record.
  void BuildRoute();

  /// ddmmyy and hhmmss, with or without a fraction, as seconds of the epoch by the process's time zone, that is UTC on
  /// the unit. -1 when either has fewer digits or is longer than ddmmyy and hhmmss.sss. Pieces out of their range carry
  /// over into the next, as `mktime` has it: second 60 is the next minute.
  time_t ConvertDateTime(std::string date, std::string time) const;
  /// The record's date and time as seconds of the epoch, whatever the process's time zone; empty when it has none. For
  /// whoever shows or stores the time: `record_u_time` goes by that zone.
  static std::optional<std::int64_t> GetUtc(const GpsData& data);
  /// The same in milliseconds: with the fraction that the receiver gave.
  static std::optional<std::int64_t> GetUtcMs(const GpsData& data);
  /// ddmm.mmmm or dddmm.mmmm as decimal degrees, negative for "S" and "W"; 0.0 when it cannot be read.
  double ConvertCoordinate(std::string value, std::string hemisphere) const;
  /// Writes the system's UTC as hhmmss and ddmmyy, seven characters each with the NUL.
  void BuildDateAndTime(char* time, char* date) const;

  /// Borrowed; null once the record has been released.
  const GpsData* GetData() const { return m_data.get(); }
  /// Hands the record over, as it is. The package only keeps its lines from then on: nothing changes the record or the
  /// trip statistics any more.
  [[nodiscard]] std::unique_ptr<GpsData> ReleaseData() { return std::move(m_data); }

  static GpsRouteState gpsRouteState;

 private:
  void LoadSentence(const GPSLine& line);

  std::unique_ptr<GpsData> m_data;
  std::list<GPSLine> m_lines;
  // Knots, compared with the speed of the RMC sentence.
  const std::int32_t m_minSpeed = 1;
  const std::int32_t m_maxSpeed = 130;
  const std::int32_t m_highSpeed = 75;
  const std::int32_t m_lowSpeed = 20;
};

}  // namespace Tavi::Gps
