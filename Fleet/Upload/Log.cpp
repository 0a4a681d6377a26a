// The log of tavi-upload.
#include "Fleet/Upload/Log.h"

#include "Kbase/Klog/Logger.h"

namespace Tavi::Upload {
namespace {

constexpr const char* Tag = "Upload";

}  // namespace

void LogInfo(const std::string& sentence) {
  Kbase::Klog::Logger::GetInstance().Info(Tag, sentence);
}

void LogWarning(const std::string& sentence) {
  Kbase::Klog::Logger::GetInstance().Warning(Tag, sentence);
}

}  // namespace Tavi::Upload
