// A car for machines without one.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Simulator/AccChip.h"
#include "Simulator/AlsaConfig.h"
#include "Simulator/Drive.h"
#include "Simulator/DriveClock.h"
#include "Simulator/GpsSimulator.h"

namespace Tavi::Simulator {

struct SimulatedCarConfig {
  /// GPS epochs a second.
  int gpsRate = 1;
  /// ALSA's plug-in; empty: alsa-lib/libasound_module_pcm_tavi_sim.so in the library directory beside the program's.
  std::string alsaModule;
};

/// The devices of a car that is driven round and round while the object lives: the GPS receiver at a pseudo-terminal,
/// the accelerometer chip on I2C bus 1, and the microphone as ALSA's default capture device, all from one drive.
///
/// Made before the program's first use of ALSA and before other threads, which might read the environment, run; that is
/// restored at the end. One at a time: the bus and the environment are the process's.
class SimulatedCar {
 public:
  explicit SimulatedCar(const SimulatedCarConfig& config = {});
  ~SimulatedCar();

  /// The receiver's port.
  [[nodiscard]] const std::string& GetGpsPath() const { return m_gps.GetPath(); }
  /// Which device is missing and why, in one line; empty when all are there. The others work nevertheless.
  [[nodiscard]] const std::string& GetProblem() const { return m_problem; }
  /// Pulls the microphone's card, or plugs it in again. Thread-safe.
  void SetSoundCardThere(bool isThere) const {
    if (m_alsa) m_alsa->SetCardThere(isThere);
  }
  [[nodiscard]] const Drive& GetDrive() const { return *m_drive; }

  SimulatedCar(const SimulatedCar&) = delete;
  SimulatedCar& operator=(const SimulatedCar&) = delete;

 private:
  void SetUpSound(const std::string& module);

  const std::shared_ptr<const Drive> m_drive = std::make_shared<Drive>();
  const std::shared_ptr<const DriveClock> m_clock = std::make_shared<DriveClock>();
  GpsSimulator m_gps;
  std::unique_ptr<AlsaConfig> m_alsa;
  /// What ALSA_CONFIG_PATH was before, if anything.
  std::optional<std::string> m_alsaPathBefore;
  std::string m_problem;
};

}  // namespace Tavi::Simulator
