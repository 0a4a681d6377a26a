// What is known of one source's health.
#include "Recorder/Health/SourceHealth.h"

namespace Tavi::Recorder {

const char* GetSourceName(Pipeline::PipelineType type) {
  switch (type) {
    case Pipeline::PipelineType::Camera0:
      return "camera0";
    case Pipeline::PipelineType::Camera1:
      return "camera1";
    case Pipeline::PipelineType::Audio:
      return "audio";
    case Pipeline::PipelineType::Gps:
      return "gps";
    case Pipeline::PipelineType::Acc:
      return "acc";
    case Pipeline::PipelineType::Other:
      return "other";
    case Pipeline::PipelineType::Preview0:
      return "preview0";
    case Pipeline::PipelineType::Preview1:
      return "preview1";
  }
  return "";
}

const char* GetStateName(SourceState state) {
  switch (state) {
    case SourceState::Stopped:
      return "stopped";
    case SourceState::Starting:
      return "starting";
    case SourceState::Running:
      return "running";
    case SourceState::Silent:
      return "silent";
    case SourceState::Missing:
      return "missing";
  }
  return "";
}

}  // namespace Tavi::Recorder
