// The vocabulary of an event.
#include "Tavi/PipelineCollect/PipelineCollectTypes.h"

namespace Tavi::PipelineCollect {

const char* GetPipelineCollectTypeName(PipelineCollectType type) {
  switch (type) {
    case PipelineCollectType::VideoCamera1:
      return "VideoCamera1";
    case PipelineCollectType::VideoCamera0:
      return "VideoCamera0";
    case PipelineCollectType::Audio:
      return "Audio";
    case PipelineCollectType::Gps:
      return "Gps";
    case PipelineCollectType::Acc:
      return "Acc";
    case PipelineCollectType::Other:
      return "Other";
    case PipelineCollectType::ThumbnailCamera1:
      return "ThumbnailCamera1";
    case PipelineCollectType::ThumbnailCamera0:
      return "ThumbnailCamera0";
    case PipelineCollectType::Preview:
      return "Preview";
  }
  return "";
}

void PipelineCollectOutput::AddOutput(PipelineCollectType type, const std::string& path) {
  outputs.emplace(type, path);
}

std::string PipelineCollectOutput::GetOutputPath(PipelineCollectType type) const {
  const auto found = outputs.find(type);
  return found == outputs.end() ? std::string() : found->second;
}

void PipelineCollectOutput::RemoveOutput(PipelineCollectType type) {
  outputs.erase(type);
}

}  // namespace Tavi::PipelineCollect
