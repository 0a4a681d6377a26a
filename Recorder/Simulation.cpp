// The recorder in the simulated car.
#include "Recorder/Simulation.h"

namespace Tavi::Recorder {

std::unique_ptr<Simulator::SimulatedCar> BoardSimulatedCar(Pipeline::PipelineConfig& config) {
  auto car = std::make_unique<Simulator::SimulatedCar>(Simulator::SimulatedCarConfig{config.gps.rate, {}});
  // Named after the files that their pictures end up in.
  const auto simulate = [](std::string& device, const char* scene) {
    // Somebody may want a scene of his own.
    if (!device.starts_with("sim:")) device = scene;
  };
  simulate(config.camera0.device, "sim:camera1");
  simulate(config.camera1.device, "sim:camera0");
  // The car's microphone is ALSA's default.
  config.audio.device.clear();
  // Its chip is where the library has it.
  const Accel::AccConfig usual;
  config.acc.device = usual.device;
  config.acc.bus = usual.bus;
  config.acc.address = usual.address;
  if (config.gps.path.empty()) config.gps.path = car->GetGpsPath();
  return car;
}

}  // namespace Tavi::Recorder
