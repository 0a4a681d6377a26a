// The sentences that a GPS receiver sends for a moment of the drive.
#pragma once

#include <cstdint>
#include <string>

#include "Simulator/Drive.h"

namespace Tavi::Simulator {

/// One epoch of NMEA 0183 as a receiver with a good view sends it: RMC, GGA, GSA and three GSV, each with its checksum
/// and ended by CR LF; some 430 characters. `utcMs` is the time of the fix in milliseconds since 1970 UTC.
[[nodiscard]] std::string BuildNmeaEpoch(const DriveState& state, std::int64_t utcMs);

}  // namespace Tavi::Simulator
