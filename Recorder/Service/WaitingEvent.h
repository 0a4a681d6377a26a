// A complete event that waits for room.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "EventStore/EventDescription.h"
#include "EventStore/FileTransfer.h"
#include "Recorder/Service/TimeOfDay.h"

namespace Tavi::Recorder {

struct WaitingEvent {
  EventStore::EventDescription event;
  std::vector<EventStore::SourceFile> sources;
  /// Id of the request's note.
  std::string noteId;
  /// The directory of its own that its files lie in, with "/" at its end; empty when they have none.
  std::string dir;
  /// Retention leaves it alone, and it is never given up.
  bool keep = false;
  /// When it was, for the receiver's time; empty when the event is an earlier process's.
  std::optional<Moment> moment = std::nullopt;
  /// Why it could not be saved last; empty before the first try.
  std::string problem = {};
};

/// Writes down beside its files what it is, so that the next process finds it as that. False, with one sentence in
/// `problem`, on failure.
bool WriteDown(const WaitingEvent& waiting, std::string& problem);
/// The event in `dir` (ends with "/"); empty when there is none that was written down.
std::optional<WaitingEvent> ReadWaiting(const std::string& dir);
/// Copies it to `dir` (ends with "/"), which appears when all of it is on the disk. False, with one sentence in
/// `problem`, on failure.
bool CopyWaiting(const WaitingEvent& waiting, const std::string& dir, std::string& problem);

}  // namespace Tavi::Recorder
