// The test entry.
#include "Tavi/Testing/TestGstApi.h"

#include <chrono>
#include <iostream>

#include "Kbase/Util/Clock.h"
#include "Tavi/Pipeline/PipelineManager.h"

namespace Tavi::Testing {

Pipeline::PipelineConfig BuildTestConfig() {
  Pipeline::PipelineConfig config;
  config.camera1.device = "/dev/video0";
  config.camera1.width = 1280;
  config.camera1.height = 720;
  config.camera1.fps = 30;
  config.camera1.bitrate = 1500;
  config.camera1.streamEnabled = false;
  config.camera1.streamPort = 9000;

  config.camera0.device = "/dev/video1";
  config.camera0.width = 1280;
  config.camera0.height = 720;
  config.camera0.fps = 15;
  config.camera0.bitrate = 3000;
  config.camera0.streamEnabled = false;
  config.camera0.streamPort = 9001;

  config.audioEnabled = true;
  config.audio.bitrate = 128;
  config.audio.frameRate = 38.3F;
  config.gpsEnabled = true;
  config.accEnabled = true;
  return config;
}

void TestGstApi() {
  Pipeline::PipelineManager manager(BuildTestConfig());
  manager.RunIgnitionStart();
  std::cout << "PLAYING\n" << std::flush;
  while (true) Kbase::Util::IClock::Steady().Sleep(std::chrono::seconds(1));
}

}  // namespace Tavi::Testing
