// The version that the recorder reports.
#pragma once

#include <string_view>

namespace Tavi::Recorder {

inline constexpr const char* Version = "tavi-recorder " TAVI_VERSION;

/// The commit that it was built from, with "-dirty" where files had been changed; "unknown" outside of a repository.
std::string_view GetCommit();

}  // namespace Tavi::Recorder
