// The recorder in the simulated car.
#pragma once

#include <memory>

#include "Simulator/SimulatedCar.h"
#include "Tavi/Pipeline/PipelineConfig.h"

namespace Tavi::Recorder {

/// A running car, with `config` set to its devices: the test scenes, and its GPS receiver unless one is given. Keep it
/// as long as acquisition runs; its GetProblem says what is missing. It sets the environment: call it before any thread
/// runs that reads it.
std::unique_ptr<Simulator::SimulatedCar> BoardSimulatedCar(Pipeline::PipelineConfig& config);

}  // namespace Tavi::Recorder
