// The log of tavi-upload.
#pragma once

#include <string>

namespace Tavi::Upload {

/// Thread-safe, as the logger is.
void LogInfo(const std::string& sentence);
void LogWarning(const std::string& sentence);

}  // namespace Tavi::Upload
