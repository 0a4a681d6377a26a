// The list of events, as a page beside their directories.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "EventStore/EventDescription.h"

namespace Tavi::EventTools {

/// An event's entry in the list: when, why, how long, what was measured, what is missing, a still, and the way to its
/// page. `directory`: its name beside the list. `laterLabel`: what people wrote about it since, empty for nothing.
/// Nothing that comes from either can be taken for markup.
std::string BuildRow(const EventStore::EventDescription& event, std::string_view directory,
                     std::string_view laterLabel = {});
/// Of a directory whose description cannot be read.
std::string BuildUnreadableRow(std::string_view directory);

/// The whole page; it needs no script. `rows`: in their order.
std::string BuildIndex(const std::vector<std::string_view>& rows);

}  // namespace Tavi::EventTools
