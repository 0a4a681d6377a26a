// The companion of a stream's file: when each of its entries was.
#include "Tavi/PipelineCollect/EntryTimes.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>

#include "Tavi/GstUtil/Log.h"

namespace Tavi::PipelineCollect {
namespace {

constexpr std::string_view Magic = "times 1";
constexpr std::string_view Captured = "captured";
constexpr std::string_view Counted = "counted";
constexpr double NsPerSecond = 1e9;
constexpr std::size_t ReadBlock = 4096;

/// Takes what stands before `separator` off the front of `text`; nothing when it does not stand there.
std::optional<std::string_view> TakeUpTo(std::string_view& text, char separator) {
  const auto end = text.find(separator);
  if (end == std::string_view::npos) return {};
  const auto piece = text.substr(0, end);
  text.remove_prefix(end + 1);
  return piece;
}

template <class Number>
bool ReadNumber(std::string_view text, Number& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size();
}

std::optional<EntryTime> ParseEntry(std::string_view line) {
  EntryTime time;
  const auto arrived = TakeUpTo(line, ' ');
  if (!arrived || !ReadNumber(*arrived, time.arrivedNs)) return {};
  const auto word = line.substr(0, line.find(' '));
  if (word.size() < line.size()) time.note = line.substr(word.size() + 1);
  if (word == "-") return time;
  std::uint64_t timestamp = 0;
  if (!ReadNumber(word, timestamp)) return {};
  time.timestampNs = timestamp;
  return time;
}

}  // namespace

std::vector<double> EntryTimes::GetSeconds() const {
  auto distance = std::numeric_limits<std::int64_t>::max();
  for (const EntryTime& entry : entries) {
    if (!hasCaptureTimes || !entry.timestampNs) continue;
    distance = std::min(distance, entry.arrivedNs - static_cast<std::int64_t>(*entry.timestampNs));
  }
  std::vector<double> seconds;
  seconds.reserve(entries.size());
  for (const EntryTime& entry : entries) {
    const bool isCaptured = hasCaptureTimes && entry.timestampNs;
    const std::int64_t ns = isCaptured ? static_cast<std::int64_t>(*entry.timestampNs) + distance : entry.arrivedNs;
    seconds.push_back(static_cast<double>(ns) / NsPerSecond);
  }
  return seconds;
}

std::string FormatTimesHeader(double rate, bool hasCaptureTimes) {
  char text[64];
  std::snprintf(text, sizeof(text), "%s %.6g %s\n", Magic.data(), rate,
                hasCaptureTimes ? Captured.data() : Counted.data());
  return text;
}

std::string FormatEntryTime(const EntryTime& time) {
  return std::to_string(time.arrivedNs) + " " + (time.timestampNs ? std::to_string(*time.timestampNs) : "-") +
         (time.note.empty() ? "" : " " + time.note) + "\n";
}

std::optional<EntryTimes> ParseTimes(std::string_view text) {
  auto header = TakeUpTo(text, '\n');
  if (!header || !header->starts_with(Magic) || header->size() <= Magic.size()) return {};
  header->remove_prefix(Magic.size() + 1);
  EntryTimes times;
  const auto rate = TakeUpTo(*header, ' ');
  if (!rate || !ReadNumber(*rate, times.rate) || (*header != Captured && *header != Counted)) return {};
  times.hasCaptureTimes = *header == Captured;
  while (const auto line = TakeUpTo(text, '\n')) {
    const auto entry = ParseEntry(*line);
    // What stands behind a damaged line cannot be told which entry it belongs to.
    if (!entry) break;
    times.entries.push_back(*entry);
  }
  return times;
}

std::optional<EntryTimes> ReadTimesOf(const std::string& path) {
  const std::string name = path + std::string(TimesSuffix);
  // Once more where the disk fails: without its times a stream plays at another rate.
  for (int tries = 0; tries < 2; ++tries) {
    std::ifstream file(name, std::ios::binary);
    if (!file) return {};
    std::string text;
    std::array<char, ReadBlock> block{};
    // Unlike an iterator's, its failures are no exceptions.
    while (file.read(block.data(), block.size()) || file.gcount() > 0) {
      text.append(block.data(), static_cast<std::size_t>(file.gcount()));
    }
    if (!file.bad()) return ParseTimes(text);
    Log::Warning("cannot read " + name + ": " + std::strerror(errno));
  }
  return {};
}

}  // namespace Tavi::PipelineCollect
