// Names and times of events.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Tavi::EventStore {

/// A directory on its way to become an event, and one on its way out.
inline constexpr std::string_view NewPrefix = ".new_";
inline constexpr std::string_view OldPrefix = ".old_";

/// The page of an event, and the list of events, for any browser; and one on its way. They are made of what the event
/// has and belong to none: whoever can write there can make another.
inline constexpr std::string_view PageName = "index.html";
inline constexpr std::string_view NewPageName = ".index.html.new";

/// "2026-11-21T13:40:05.123Z" of a Unix time in milliseconds. Times outside the years 1970 to 9999 become the nearest
/// one inside.
std::string FormatTime(std::int64_t timeMs);
/// The reverse; empty for anything that FormatTime does not write.
std::optional<std::int64_t> ParseTime(const std::string& text);

/// 8 random lower-case hex digits. Thread-safe.
std::string NewEventId();
/// The id that stands for `text`: always the same one, and seldom that of another.
std::string BuildEventId(std::string_view text);
bool IsEventId(std::string_view id);
/// True for what BuildEventDirName builds.
bool IsEventDirName(std::string_view name);
/// The id at the end of such a name.
std::string GetEventId(std::string_view eventDirName);

/// True for the name of a product: one level, not hidden, none of the store's own.
bool IsProductName(std::string_view name);

}  // namespace Tavi::EventStore
