// The program's log lines all bear one tag.
#pragma once

#include <string_view>

#include "Kbase/Klog/Logger.h"

namespace Tavi::Mqtt::Log {

inline constexpr std::string_view Tag = "Mqtt";

inline void Info(std::string_view message) {
  Kbase::Klog::Logger::GetInstance().Info(Tag, message);
}
inline void Warning(std::string_view message) {
  Kbase::Klog::Logger::GetInstance().Warning(Tag, message);
}

}  // namespace Tavi::Mqtt::Log
