// How good a fix is, and how high: what its RMC sentence has no field for.
#include "Tavi/Gps/FixQuality.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

namespace Tavi::Gps {
namespace {

constexpr std::string_view Unknown = "-";

template <typename Number>
std::optional<Number> TakeNumber(std::string_view& text) {
  const auto word = text.substr(0, text.find(' '));
  text.remove_prefix(std::min(word.size() + 1, text.size()));
  Number number{};
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
  const bool isRead = error == std::errc() && end == word.data() + word.size();
  return isRead && std::isfinite(static_cast<double>(number)) ? std::optional(number) : std::nullopt;
}

template <typename Number>
std::string FormatNumber(Number number) {
  std::array<char, 32> text{};
  const auto [end, error] = std::to_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() ? std::string(text.data(), end) : std::string(Unknown);
}

}  // namespace

std::string FormatFixQuality(const GpsData& data) {
  if (!(data.HDOP < UnknownDilution)) return {};
  return FormatNumber(data.HDOP) + " " + FormatNumber(data.noOfSatellites) + " " +
         (data.altitude != 0.0 ? FormatNumber(data.altitude) : std::string(Unknown));
}

FixQuality ParseFixQuality(std::string_view text) {
  FixQuality quality;
  quality.hdop = TakeNumber<double>(text);
  quality.satellites = TakeNumber<int>(text);
  quality.altitudeMetres = TakeNumber<double>(text);
  if (quality.hdop && !(*quality.hdop >= 0.0 && *quality.hdop < UnknownDilution)) quality.hdop.reset();
  if (quality.satellites && *quality.satellites < 0) quality.satellites.reset();
  return quality;
}

}  // namespace Tavi::Gps
