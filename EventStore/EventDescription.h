// What is known of one event: the content of its event.json.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Tavi::EventStore {

/// One product.
struct EventFile {
  /// What it holds: "VideoCamera1", "VideoCamera0", "Audio", "Gps", "Acc", "Other", "ThumbnailCamera1",
  /// "ThumbnailCamera0", "Preview" or "PreviewStill".
  std::string type;
  /// Name within the event's directory.
  std::string name;
  std::uint64_t bytes = 0;
  /// 64 lower-case hex digits (FIPS 180-4).
  std::string sha256;
};

/// What one stream delivered.
struct StreamWindow {
  /// As in EventFile.
  std::string type;
  std::uint64_t entries = 0;
  /// Entries a second.
  double rate = 0.0;
  /// First and last entry in seconds relative to the event, negative before it.
  double fromSeconds = 0.0;
  double toSeconds = 0.0;
  /// Time stamps of the same entries by the source's own clock, empty when it has none.
  std::optional<std::int64_t> firstTimestampNs;
  std::optional<std::int64_t> lastTimestampNs;
};

/// What of the window that was asked for is not there.
struct MissingPart {
  /// As of StreamWindow and EventFile.
  std::string type;
  /// How much is missing; 0 for what has no length.
  double seconds = 0.0;
  /// A few words for people: "begins late", with what is known.
  std::string reason;
};

/// Decimal degrees, north and east positive; knots.
struct Position {
  double latitude = 0.0;
  double longitude = 0.0;
  double speedKnots = 0.0;
  /// UTC, as "2026-11-21T13:40:05Z".
  std::string fixTime;
};

/// `timeSource` of an event.
inline constexpr const char* ReceiverSource = "receiver";
inline constexpr const char* SystemSource = "system";

/// A moment, and whose clock tells it.
struct EventTime {
  /// Unix time in milliseconds, UTC.
  std::int64_t timeMs = 0;
  /// As in EventDescription.
  std::string source = SystemSource;
  std::optional<double> systemAheadSeconds;
};

/// The unit's word for an event, and its place among the unit's events.
struct Seal {
  /// Of the key that event.json is signed with: Ed25519, 64 lower-case hex digits.
  std::string publicKey;
  /// 1 for the first event of the directory, then one more each time.
  std::uint64_t sequence = 0;
  /// SHA-256 of the event.json before, 64 lower-case hex digits; empty for the first.
  std::optional<std::string> previous;
};

/// What people call the cameras, by their numbers in the settings; empty for one without a name. The type of the first
/// one's video is "VideoCamera1", of the second one's "VideoCamera0".
using CameraNames = std::array<std::string, 2>;

struct EventDescription {
  /// 8 lower-case hex digits.
  std::string id;
  /// Name and version of the recording program.
  std::string software;
  /// The requester's own words.
  std::string label;
  /// "request", "acceleration" or "recovery".
  std::string trigger = "request";
  /// The moment of the event: Unix time in milliseconds, UTC.
  std::int64_t timeMs = 0;
  /// Whose clock tells it: "receiver" or "system".
  std::string timeSource = SystemSource;
  /// By how much the system's clock was ahead of the receiver's then, negative behind it; empty where the receiver's
  /// is not known.
  std::optional<double> systemAheadSeconds;
  /// The window asked for: its start relative to the event, and its length.
  int startSeconds = -15;
  int durationSeconds = 30;
  bool withPreview = false;
  /// "first", "second" or "spare", empty for a recovered event.
  std::string manager;
  /// How long the request waited for a free manager.
  double queuedSeconds = 0.0;
  /// Ended early (stop, power), or recovered.
  bool interrupted = false;
  /// Empty without a valid fix.
  std::optional<double> maxSpeedKnots;
  /// Empty without an accelerometer.
  std::optional<double> maxG;
  /// What the accelerometer's native bytes are counted by: its full scale, 2, 4 or 8 g.
  int accScaleG = 4;
  std::optional<Position> position;
  int previewSeconds = 0;
  CameraNames cameraNames;
  /// One for each stream that delivered.
  std::vector<StreamWindow> streams;
  /// Empty when all that was asked for is there. Not known of recovered events.
  std::vector<MissingPart> missing;
  std::vector<EventFile> files;
  /// Empty for an event that nobody has signed, and until it is written.
  std::optional<Seal> seal;
};

inline constexpr const char* EventJsonName = "event.json";

/// The text of event.json, indented by two spaces, with a line end. Every key is there; what is not known is null.
/// Bytes that are no UTF-8 are replaced, and a required number that is none (NaN) is 0. Reentrant.
std::string FormatEvent(const EventDescription& event);

/// Reads `eventDir`/event.json. Empty, with one sentence in `problem` that names the file and what is wrong with it, on
/// anything but a complete description: it may come from a damaged disk or from a hand. Unknown keys are passed over.
/// The files themselves are not looked at; their names are proved to stay within the directory. Reentrant.
std::optional<EventDescription> ReadEvent(const std::string& eventDir, std::string& problem);

void SetTime(EventDescription& event, const EventTime& time);
EventTime GetTime(const EventDescription& event);
/// The event's moment by the system's clock of then, whosever `timeMs` is: what names and times of files go by.
std::int64_t GetSystemTimeMs(const EventDescription& event);

/// "20261121T134005Z_9f3ca1b2": sorted by name is sorted by the events' own times.
std::string BuildEventDirName(const EventDescription& event);

/// From the first entry that any stream has to the last; 0 without streams.
[[nodiscard]] double GetRecordedSeconds(const EventDescription& event);

}  // namespace Tavi::EventStore
