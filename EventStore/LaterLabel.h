// What people write about an event after it was saved.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Tavi::EventStore {

/// The file that holds it, UTF-8 in one line, no part of the event: what was signed stays as it is.
inline constexpr const char* LaterLabelName = "label";
/// What it is written as before it takes that name.
inline constexpr const char* NewLaterLabelName = ".label.new";

/// Of an event's directory; empty without one, and for a file that is no such text. Reentrant, as the others are, also
/// beside a writer in another process.
std::string ReadLaterLabel(const std::string& eventDir);

/// When the words of an event's directory were written, Unix time in nanoseconds; 0 without any.
std::int64_t GetLaterLabelTime(const std::string& eventDir);

/// Replaces it, synced and whole at any time; an empty `label` removes it. The event keeps its place in the order of
/// saving. `label`: UTF-8 without control characters, at most MaxLaterLabelBytes of it. False, with one sentence in
/// `problem`, when there is no such event (any more) or the disk refuses.
[[nodiscard]] bool SetLaterLabel(const std::string& eventsDir, const std::string& id, const std::string& label,
                                 std::string& problem);

/// 200 characters of at most four bytes.
inline constexpr std::size_t MaxLaterLabelBytes = 800;

}  // namespace Tavi::EventStore
