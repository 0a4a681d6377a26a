// A car for machines without one.
#include "Simulator/SimulatedCar.h"

#include <stdlib.h>

#include <filesystem>
#include <utility>

#include "Kdevice/I2C/I2c.h"

namespace Tavi::Simulator {
namespace {

namespace fs = std::filesystem;

constexpr int AccBus = 1;
constexpr const char* AlsaVariable = "ALSA_CONFIG_PATH";
constexpr const char* ModuleName = "libasound_module_pcm_tavi_sim.so";

/// Beside the program: where a build tree has its libraries, else where the system has those of the machine's kind.
std::string FindModule() {
  std::error_code ignored;
  const fs::path prefix = fs::read_symlink("/proc/self/exe", ignored).parent_path().parent_path();
  const fs::path built = prefix / "lib" / "alsa-lib" / ModuleName;
  if (fs::exists(built, ignored)) return built.string();
  return (prefix / TAVI_LIBRARY_DIR / "alsa-lib" / ModuleName).string();
}

}  // namespace

SimulatedCar::SimulatedCar(const SimulatedCarConfig& config) : m_gps(*m_drive, *m_clock, config.gpsRate) {
  m_problem = m_gps.GetProblem();
  SetUpSound(config.alsaModule.empty() ? FindModule() : fs::absolute(config.alsaModule).string());
  Kdevice::I2C::I2c::Attach(AccBus, std::make_shared<AccChip>(m_drive, m_clock));
  if (!m_gps.GetPath().empty()) m_gps.Start();
}

SimulatedCar::~SimulatedCar() {
  m_gps.Stop();
  Kdevice::I2C::I2c::Attach(AccBus, nullptr);
  if (!m_alsa) return;
  if (m_alsaPathBefore) {
    setenv(AlsaVariable, m_alsaPathBefore->c_str(), 1);
  } else {
    unsetenv(AlsaVariable);
  }
}

void SimulatedCar::SetUpSound(const std::string& module) {
  std::error_code error;
  std::string problem;
  if (!fs::is_regular_file(module, error)) {
    problem = "the simulated microphone's ALSA plug-in is missing: " + module;
  } else {
    auto config = std::make_unique<AlsaConfig>(module);
    problem = config->GetProblem();
    if (problem.empty()) m_alsa = std::move(config);
  }
  if (!problem.empty()) m_problem += (m_problem.empty() ? "" : "; ") + problem;
  if (!m_alsa) return;
  if (const char* before = getenv(AlsaVariable)) m_alsaPathBefore = before;
  setenv(AlsaVariable, m_alsa->GetPath().c_str(), 1);
}

}  // namespace Tavi::Simulator
