// The companion of a stream's file: when each of its entries was.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Tavi::PipelineCollect {

/// What stands behind the name of a file in that of its companion.
inline constexpr std::string_view TimesSuffix = ".times";

/// When one entry of a file was.
struct EntryTime {
  /// When it arrived, in nanoseconds from the moment of the event by the steady clock; negative is before it.
  std::int64_t arrivedNs = 0;
  /// Presentation time stamp in nanoseconds by the source's own clock; empty when the entry has none.
  std::optional<std::uint64_t> timestampNs;
  /// What the source has to say of the entry that its file has no room for: words, no line end. Mostly empty.
  std::string note = {};
};

/// What a companion holds: one line of text for the whole, then one for each entry, in the order of the file.
struct EntryTimes {
  /// Entries a second as configured.
  double rate = 0.0;
  /// The time stamps tell when an entry was captured, by a clock that cameras and microphone share; otherwise they only
  /// count entries.
  bool hasCaptureTimes = false;
  std::vector<EntryTime> entries;

  /// When each entry was, in seconds from the moment of the event. Where there are capture times these decide: they are
  /// even where arrival jitters, and lie as much before it as the quickest entry took.
  [[nodiscard]] std::vector<double> GetSeconds() const;
};

/// The companion's first line, with its line end.
std::string FormatTimesHeader(double rate, bool hasCaptureTimes);
/// One entry's line, with its line end.
std::string FormatEntryTime(const EntryTime& time);
/// Reads a companion's text. A line that was cut at its end counts for nothing. Empty, when the first line is not that
/// of a companion. Reentrant.
std::optional<EntryTimes> ParseTimes(std::string_view text);
/// Reads the companion of the file at `path`. Empty when there is none, or it cannot be read.
std::optional<EntryTimes> ReadTimesOf(const std::string& path);

}  // namespace Tavi::PipelineCollect
