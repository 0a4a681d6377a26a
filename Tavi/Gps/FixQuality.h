// How good a fix is, and how high: what its RMC sentence has no field for.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Tavi/Gps/GpsData.h"

namespace Tavi::Gps {

/// Of a GGA sentence; each empty when the receiver did not tell it.
struct FixQuality {
  /// Horizontal dilution of precision.
  std::optional<double> hdop;
  /// In use.
  std::optional<int> satellites;
  /// Above mean sea level.
  std::optional<double> altitudeMetres;
};

/// "0.9 8 545.4": the three in this order, "-" for what is not known. Empty without any: the epoch had no GGA sentence
/// of a fix. An altitude of exactly 0 counts as not known, as in the record nothing else tells the two apart.
std::string FormatFixQuality(const GpsData& data);
/// The reverse; empty fields for whatever cannot be read.
FixQuality ParseFixQuality(std::string_view text);

}  // namespace Tavi::Gps
