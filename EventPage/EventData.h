// One event as it lies on disk: its description and what its sensor files hold.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "EventStore/EventDescription.h"
#include "EventStore/SensorFiles.h"

namespace Tavi::EventTools {

struct EventData {
  std::string directory;
  EventStore::EventDescription description;
  /// What people wrote about it after it was saved; empty for nothing. No part of the event, and not signed.
  std::string laterLabel;
  SensorRecords<Fix> gps;
  SensorRecords<AccSample> acc;
  SensorRecords<MetricSample> other;
  /// Every file was read and held against its hash, and the description against its signature.
  bool isChecked = false;
  /// A sentence for each file that is missing, damaged or not as the description has it.
  std::vector<std::string> problems;
};

/// Whether the event is held against its hashes and its signature, for which all of it is read.
enum class EventProof { All, Nothing };

/// Reads the event of `directory`. False, with one sentence in `problem`, when its description cannot be read. Files
/// that are damaged or gone cost only what they held, and are named in `data.problems`.
bool LoadEvent(const std::string& directory, EventData& data, std::string& problem, EventProof proof = EventProof::All);

/// Reads the file that the description names for `type`, whole. False when the event has none, and, with `problem`
/// telling, when it cannot be read or is longer than `maxBytes`.
bool ReadEventFile(const EventData& data, std::string_view type, std::size_t maxBytes, std::string& content,
                   std::string& problem);

/// The window of the stream `type`; null when the description has none.
const EventStore::StreamWindow* FindStream(const EventStore::EventDescription& description, std::string_view type);
/// The file of `type`; null when the description has none.
const EventStore::EventFile* FindFile(const EventStore::EventDescription& description, std::string_view type);

/// UTC of a moment on the event's time line, Unix time in milliseconds.
std::int64_t GetUtcMs(const EventStore::EventDescription& description, double secondsFromEvent);
/// The label, or "Event <id>" without one.
std::string GetTitle(const EventStore::EventDescription& description);

}  // namespace Tavi::EventTools
