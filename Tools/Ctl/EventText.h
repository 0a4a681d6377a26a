// Events on the disk as text for people, and as JSON for programs.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "Tools/Ctl/EventsDirectory.h"

namespace Tavi::Ctl {

/// {"ok":true,"eventsDir","total","events":[…]}: what FormatEvents shows of each.
nlohmann::ordered_json ListEvents(const EventsDirectory& events);
/// A table, an event a line, the oldest first.
std::string FormatEvents(const EventsDirectory& events);

/// {"event","directory","bytes","protected","laterLabel","description"}, this the content of event.json or null, with
/// "problem".
nlohmann::ordered_json DescribeEvent(const EventsDirectory& events, const EventStore::EventEntry& entry);
/// All that is known of one event, a line each.
std::string FormatEvent(const EventsDirectory& events, const EventStore::EventEntry& entry);

/// One event in a few words: "9f3ca1b2 of 2026-11-21 13:40:05 (request, "door", 12.3 MB)".
std::string NameEvent(const EventsDirectory& events, const EventStore::EventEntry& entry);

}  // namespace Tavi::Ctl
