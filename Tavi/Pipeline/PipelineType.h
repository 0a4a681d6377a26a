// The keys of the pipeline manager's elements.
#pragma once

#include <cstdint>

namespace Tavi::Pipeline {

/// Numeric order is the order in which elements are started, stopped and destroyed.
enum class PipelineType : std::int32_t {
  Camera0 = 0,
  Camera1 = 1,
  Audio = 2,
  Gps = 3,
  Acc = 4,
  Other = 5,
  Preview0 = 6,
  Preview1 = 7,
};

/// As people know it: the cameras' numbers cross over against the keys.
[[nodiscard]] constexpr const char* GetPeoplesName(PipelineType type) {
  switch (type) {
    case PipelineType::Camera0:
      return "camera1";
    case PipelineType::Camera1:
      return "camera0";
    case PipelineType::Audio:
      return "audio";
    case PipelineType::Gps:
      return "gps";
    case PipelineType::Acc:
      return "acc";
    case PipelineType::Other:
      return "other";
    case PipelineType::Preview0:
      return "preview1";
    case PipelineType::Preview1:
      return "preview0";
  }
  return "";
}

}  // namespace Tavi::Pipeline
