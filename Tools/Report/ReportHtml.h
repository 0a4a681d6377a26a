// The report of an event: one page that needs nothing else.
#pragma once

#include <string>

#include "Tools/EventData.h"

namespace Tavi::EventTools {

/// One HTML page with the event's description, measurements and clips in it. A clip that cannot be read is left out and
/// named in `data.problems`. Nothing that comes from the event's files can be taken for markup.
std::string BuildReport(EventData& data);

/// RFC 4648, section 4, appended to `text`.
void AppendBase64(std::string_view bytes, std::string& text);

}  // namespace Tavi::EventTools
