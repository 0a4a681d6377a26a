// The version that the recorder reports.
#pragma once

namespace Tavi::Recorder {

inline constexpr const char* Version = "tavi-recorder " TAVI_VERSION;

}  // namespace Tavi::Recorder
