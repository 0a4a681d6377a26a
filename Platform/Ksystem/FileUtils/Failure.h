// The one form of the system library's error lines.
#pragma once

#include <cerrno>
#include <cstring>
#include <string>

#include "Kbase/Klog/Logger.h"

namespace Ksystem::FileUtils {

/// Logs "cannot <action> <path>: <errno text>".
inline void LogFailure(const std::string& action, const std::string& path) {
  const std::string reason = std::strerror(errno);
  Kbase::Klog::Logger::GetInstance().Error("Ksystem", "cannot " + action + " " + path + ": " + reason);
}

}  // namespace Ksystem::FileUtils
