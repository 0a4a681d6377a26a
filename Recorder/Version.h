// The version that the recorder reports.
#pragma once

namespace Tavi::Recorder {

inline constexpr const char* Version = "tavi-recorder 0.1.0";

}  // namespace Tavi::Recorder
