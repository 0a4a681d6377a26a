// The ranges that a request and the settings share.
#pragma once

#include "SettingsFile/Range.h"

namespace Tavi::Recorder::Limits {

using SettingsFile::Range;

/// What the rings hold, less the second in which the window's first key frame is looked for.
inline constexpr Range<int> StartSeconds{-31, 0};
/// A collect is aborted after 120 s; a window must end well before.
inline constexpr Range<int> DurationSeconds{0, 110};

}  // namespace Tavi::Recorder::Limits
