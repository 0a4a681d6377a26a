// Bringing one element to a state without its pipeline, which learns nothing of what goes wrong.
#pragma once

#include <gst/gst.h>

#include <string>

namespace Tavi::GstUtil {

/// Takes an element that is at NULL to `state` and leaves it there, on a bus of its own: what it has to report stays
/// away from a pipeline's bus, where an error has consequences; what it tells of a choice of its own comes to the log.
/// One that is in a bin must be locked against the bin's own state changes. Empty, or why it does not get there: it is
/// at NULL then.
std::string TryState(GstElement* element, GstState state);

/// Writes what an element tells of a choice of its own, as a camera's mode, to the log. The message is of type INFO.
void LogInfo(GstMessage* message);

}  // namespace Tavi::GstUtil
