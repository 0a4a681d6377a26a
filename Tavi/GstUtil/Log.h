// The library's log lines all bear one tag.
#pragma once

#include <string_view>

#include "Kbase/Klog/Logger.h"

namespace Tavi::Log {

inline constexpr std::string_view Tag = "Tavi";

inline void Info(std::string_view message) {
  Kbase::Klog::Logger::GetInstance().Info(Tag, message);
}
inline void Warning(std::string_view message) {
  Kbase::Klog::Logger::GetInstance().Warning(Tag, message);
}
inline void Error(std::string_view message) {
  Kbase::Klog::Logger::GetInstance().Error(Tag, message);
}

}  // namespace Tavi::Log
