// Names and times of events.
#include "EventStore/EventName.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <random>

#include "EventStore/Chain.h"
#include "EventStore/EventDescription.h"
#include "EventStore/EventList.h"
#include "EventStore/LaterLabel.h"

namespace Tavi::EventStore {
namespace {

constexpr std::int64_t MsPerSecond = 1000;
/// 9999-12-31T23:59:59.999Z: a fifth digit of the year would break the order of the names.
constexpr std::int64_t LastTimeMs = 253'402'300'799'999;
constexpr std::string_view DirNamePattern = "00000000T000000Z_xxxxxxxx";
constexpr std::size_t IdLength = 8;

struct UtcTime {
  std::tm fields{};
  int ms = 0;
};

UtcTime SplitTime(std::int64_t timeMs) {
  const std::int64_t bounded = std::clamp<std::int64_t>(timeMs, 0, LastTimeMs);
  UtcTime split;
  const auto seconds = static_cast<std::time_t>(bounded / MsPerSecond);
  gmtime_r(&seconds, &split.fields);
  split.ms = static_cast<int>(bounded % MsPerSecond);
  return split;
}

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}
bool IsHexDigit(char c) {
  return IsDigit(c) || (c >= 'a' && c <= 'f');
}

bool MatchesPattern(char c, char pattern) {
  if (pattern == '0') return IsDigit(c);
  return pattern == 'x' ? IsHexDigit(c) : c == pattern;
}

}  // namespace

std::string FormatTime(std::int64_t timeMs) {
  const auto [utc, ms] = SplitTime(timeMs);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday,
                     utc.tm_hour, utc.tm_min, utc.tm_sec, ms);
}

std::optional<std::int64_t> ParseTime(const std::string& text) {
  std::tm utc{};
  int ms = 0;
  const int fields = std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d.%3dZ", &utc.tm_year, &utc.tm_mon, &utc.tm_mday,
                                 &utc.tm_hour, &utc.tm_min, &utc.tm_sec, &ms);
  if (fields != 7) return std::nullopt;
  utc.tm_year -= 1900;
  utc.tm_mon -= 1;
  const std::int64_t timeMs = static_cast<std::int64_t>(timegm(&utc)) * MsPerSecond + ms;
  // Takes care of the 31st of February, blanks, signs and of whatever stands behind.
  return FormatTime(timeMs) == text ? std::optional(timeMs) : std::nullopt;
}

std::string BuildEventDirName(const EventDescription& event) {
  const UtcTime time = SplitTime(event.timeMs);
  const std::tm& utc = time.fields;
  return fmt::format("{:04}{:02}{:02}T{:02}{:02}{:02}Z_{}", utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday,
                     utc.tm_hour, utc.tm_min, utc.tm_sec, event.id);
}

std::string NewEventId() {
  // A unit that has just started may have nothing random yet, and draw what it drew at the start before.
  const auto now = std::chrono::system_clock::now().time_since_epoch().count();
  return fmt::format("{:08x}", std::random_device()() ^ static_cast<std::uint32_t>(now));
}

std::string BuildEventId(std::string_view text) {
  // FNV-1a.
  std::uint32_t hash = 2'166'136'261U;
  for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 16'777'619U;
  return fmt::format("{:08x}", hash);
}

bool IsEventId(std::string_view id) {
  return id.size() == IdLength && std::all_of(id.begin(), id.end(), IsHexDigit);
}

bool IsEventDirName(std::string_view name) {
  return std::equal(name.begin(), name.end(), DirNamePattern.begin(), DirNamePattern.end(), MatchesPattern);
}

std::string GetEventId(std::string_view eventDirName) {
  return std::string(eventDirName.substr(eventDirName.size() - std::min(IdLength, eventDirName.size())));
}

bool IsProductName(std::string_view name) {
  using namespace std::string_view_literals;
  return !name.empty() && name.front() != '.' && name.find_first_of("/\0"sv) == std::string_view::npos &&
         name != EventJsonName && name != ProtectedMarker && name != LaterLabelName && name != SignatureName &&
         name != PageName;
}

}  // namespace Tavi::EventStore
