// What the messages say. docs/mqtt.md tells of each key.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "EventStore/EventList.h"
#include "Fleet/Mqtt/Broker.h"
#include "Fleet/Mqtt/RecorderStatus.h"
#include "Fleet/Mqtt/Settings.h"

namespace Tavi::Mqtt {

/// The description's content without its lists, one line of JSON; with what a receiver checks the description by.
/// `description` is the text of event.json in `eventDir`; where it is not understood the line says why.
std::string BuildSummary(const Settings& settings, const EventStore::EventEntry& entry, const std::string& eventDir,
                         const std::string& description);

/// What of the program itself belongs to the unit's health.
struct OwnHealth {
  /// Events without the broker's acknowledgement.
  std::uint64_t unpublished = 0;
  /// The newest event's id and time, empty without one.
  std::string lastEventId;
  std::string lastEventTime;
};

/// One line of JSON. `nowMs`: Unix time in milliseconds.
std::string BuildHealth(const Settings& settings, const RecorderStatus& recorder, const OwnHealth& own,
                        std::int64_t nowMs);

/// What tells a dashboard which values there are, a retained message each.
std::vector<Message> BuildDiscovery(const Settings& settings);

}  // namespace Tavi::Mqtt
