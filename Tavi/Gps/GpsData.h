// The fix record: what one epoch of the receiver amounts to.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace Tavi::Gps {

/// What a record's dilutions of precision are until a sentence gives one.
inline constexpr double UnknownDilution = 100.0;

/// One flat block of fixed size, wrapped whole in a media buffer and read back whole from it. Of it, files carry the
/// RMC sentence alone. All texts are NUL-terminated, cut where they are too long. No member has an initialiser, so that
/// `GpsData()` zeroes the padding too.
struct GpsData {
  /// 1 when the RMC sentence gave a usable fix and its dilution of precision was good enough.
  std::uint8_t isValidPackage;
  /// UTC of the fix in seconds of the epoch, on a machine whose time zone is UTC (see GPSDataPackage::GetUtc), the low
  /// 32 bits of it from 2038 on; -1 when it could not be read.
  std::int32_t record_u_time;
  /// Over ground, in knots.
  double speed;
  /// Over ground, in degrees.
  double course;
  /// Decimal degrees, negative in the south.
  double latitude;
  /// Decimal degrees, negative in the west.
  double longitude;
  /// Those in use.
  std::int32_t noOfSatellites;
  /// Metres above mean sea level.
  double altitude;
  /// Dilution of precision: UnknownDilution until a sentence gives one; that of position and the vertical one stay so.
  double HDOP;
  double PDOP;
  double VDOP;
  /// Since the process started: samples at rest, in motion, in fast and in slow motion.
  std::int32_t stopCount;
  std::int32_t moveCount;
  std::int32_t highSpeedCount;
  std::int32_t lowSpeedCount;
  /// Since the process started: highest speed believed, in knots.
  double maxSpeed;
  /// Since the process started: distance travelled, in metres.
  double distance;
  /// The receiver's own ddmmyy and hhmmss.sss, zeros when either is missing.
  char m_date[12];
  char m_time[12];
  /// The position as the receiver wrote it: ddmm.mmmm, "N" or "S", dddmm.mmmm, "E" or "W".
  char std_lat[12];
  char std_latCPoint[2];
  char std_long[12];
  char std_longCPoint[2];
  /// The RMC sentence, without its line end.
  char gprmc_line[100];
};

// The record is laid out on the 32-bit unit as on the 64-bit machines it is tested on. A double has to be aligned to
// eight bytes for this: the 32-bit ABI of x86 does not, that of ARM does.
static_assert(sizeof(GpsData) == 264 && alignof(GpsData) == 8);
static_assert(offsetof(GpsData, speed) == 8 && offsetof(GpsData, altitude) == 48 && offsetof(GpsData, maxSpeed) == 96);
static_assert(offsetof(GpsData, m_date) == 112 && offsetof(GpsData, gprmc_line) == 164);
static_assert(std::is_trivially_copyable_v<GpsData> && std::is_trivially_default_constructible_v<GpsData>);

}  // namespace Tavi::Gps
