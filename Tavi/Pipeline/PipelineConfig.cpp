// The values that differ between the two cameras.
#include "Tavi/Pipeline/PipelineConfig.h"

namespace Tavi::Pipeline {

PipelineConfig::PipelineConfig() {
  camera0.cameraType = CameraType::Camera0;
  camera0.device = "/dev/video1";
  camera0.fps = 15;
  camera0.bitrate = 1536;
  camera0.streamPort = 9001;

  camera1.cameraType = CameraType::Camera1;
  camera1.device = "/dev/video0";
  camera1.fps = 30;
  camera1.bitrate = 3072;
  camera1.streamPort = 9000;
}

}  // namespace Tavi::Pipeline
