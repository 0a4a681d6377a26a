// Which of the two cameras a record, collector or file belongs to.
#pragma once

#include <cstdint>

/// The system's camera numbering. It crosses over against the names that people see, and every file name, log line and
/// the recovery rely on that: value 0 (settings record `camera0`, wired to the second video device) bears the
/// "camera1", "video1_" names, value 1 (settings record `camera1`, the first video device) the "camera0", "video0_"
/// names.
enum class CameraType : std::int32_t {
  Camera0 = 0,
  Camera1 = 1,
};
