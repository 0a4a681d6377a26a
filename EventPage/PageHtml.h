// An event as a page for any browser.
#pragma once

#include <string>

#include "EventPage/EventData.h"

namespace Tavi::EventTools {

/// One HTML page with the event's description, measurements, clips and stills in it, that needs nothing else. A clip
/// that cannot be read is left out and named in `data.problems`. Nothing that comes from the event's files can be taken
/// for markup.
std::string BuildPage(EventData& data);

/// The same for the event's own directory: clips, stills and files are links to what lies beside the page, of which
/// nothing is read. Some hundred kilobytes, most of it measurements.
std::string BuildPageBesideFiles(const EventData& data);

/// RFC 4648, section 4, appended to `text`.
void AppendBase64(std::string_view bytes, std::string& text);

}  // namespace Tavi::EventTools
