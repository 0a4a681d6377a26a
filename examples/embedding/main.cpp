// Records for twenty seconds, then writes the last ten of them and the next five: record-one-event DIRECTORY
#include <Tavi/EventCollect/PipelineCollectManager.h>
#include <Tavi/Pipeline/PipelineManager.h>

#include <chrono>
#include <iostream>
#include <string>
#include <thread>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: record-one-event DIRECTORY\n";
    return 2;
  }
  const std::string directory = std::string(argv[1]) + "/";

  Tavi::Pipeline::PipelineConfig config;  // the defaults are the unit's: two cameras, microphone and all sensors
  config.gpsEnabled = config.accEnabled = false;
  config.camera0.device = "sim:right";  // a test scene; on a unit this is "/dev/video1"
  config.camera1.device = "sim:left";
  Tavi::Pipeline::PipelineManager acquisition(config);

  Tavi::PipelineCollect::PipelineCollectManagerConfig collectConfig;
  collectConfig.pipelineManager = &acquisition;
  collectConfig.workDir = directory;
  collectConfig.backupDir = directory + "power_failure/";
  Tavi::PipelineCollect::PipelineCollectManager collect(collectConfig);

  acquisition.RunIgnitionStart();
  std::this_thread::sleep_for(std::chrono::seconds(20));

  Tavi::PipelineCollect::PipelineCollectInput input;
  input.startSeconds = -10;
  input.durationSeconds = 15;
  input.outputDir = directory;
  Tavi::PipelineCollect::PipelineCollectOutput output;
  const bool collected = collect.Collect(input, output);
  for (const auto& [type, path] : output.outputs) std::cout << path << "\n";
  acquisition.RunSigInt();
  return collected && !output.outputs.empty() ? 0 : 1;
}
