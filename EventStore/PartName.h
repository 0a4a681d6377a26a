// What people call the parts of an event.
#pragma once

#include <string>
#include <string_view>

#include "EventStore/EventDescription.h"

namespace Tavi::EventStore {

/// "front" or "camera0" for the video of the settings' camera0, whose type has the other number; "sound", "still of
/// front" and so on. A type that nobody knows is its own name. As the description has it: nothing is made printable.
std::string GetPartName(std::string_view type, const CameraNames& names);

}  // namespace Tavi::EventStore
