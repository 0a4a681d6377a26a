// tavi-recorder: records and turns events into files.
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <mutex>

#include "Kbase/Klog/Logger.h"
#include "Kbase/Util/TemperatureMonitor.h"
#include "Recorder/InputDevices.h"
#include "Recorder/Options.h"
#include "Recorder/PluginPath.h"
#include "Recorder/Recorder.h"
#include "Recorder/SignalThread.h"
#include "Recorder/Simulation.h"

namespace {

using namespace Tavi::Recorder;

constexpr int FailureExitStatus = 1;
constexpr int UsageExitStatus = 2;

int Complain(int exitStatus, const std::string& sentence) {
  std::cerr << "tavi-recorder: " + sentence + "\n";
  return exitStatus;
}

/// Keeps standard output for the reports: what the media framework prints there goes to standard error.
int ReserveStandardOutput() {
  const int reportFd = dup(STDOUT_FILENO);
  if (reportFd >= 0) dup2(STDERR_FILENO, STDOUT_FILENO);
  return reportFd;
}

int Record(Options options, int reportFd) {
  std::mutex mutex;
  Recorder* recorder = nullptr;
  const SignalThread signals([&](int signal) {
    const std::lock_guard lock(mutex);
    if (recorder == nullptr) return;
    signal == SIGPWR ? recorder->PowerFail() : recorder->Interrupt();
  });
  const auto setRecorder = [&](Recorder* which) {
    const std::lock_guard lock(mutex);
    recorder = which;
  };
  // Threads from here on leave the signals to that one.
  const auto car = options.simulate ? BoardSimulatedCar(options.pipeline) : nullptr;
  if (car && !car->GetProblem().empty()) return Complain(FailureExitStatus, car->GetProblem());
  const std::string missing = DescribeMissingDevices(options.pipeline, options.simulate);
  if (!missing.empty()) return Complain(FailureExitStatus, missing);
  Kbase::Util::TemperatureMonitor::GetInstance().Start();
  const auto owned = std::make_unique<Recorder>(options, reportFd);
  setRecorder(owned.get());
  const int status = owned->Run();
  setRecorder(nullptr);
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (const auto status = ParseOptions(argc, argv, options, std::cout, std::cerr)) return *status;
  std::error_code error;
  std::filesystem::create_directories(options.outputDir, error);
  if (!std::filesystem::is_directory(options.outputDir, error) || access(options.outputDir.c_str(), W_OK) != 0) {
    return Complain(UsageExitStatus, "--output: nothing can be written into \"" + options.outputDir +
                                         "\"; give a directory that can be created or written to");
  }
  if (!options.logFile.empty() && !Kbase::Klog::Logger::GetInstance().SetFile(options.logFile)) {
    return Complain(UsageExitStatus, "--log: \"" + options.logFile + "\" cannot be written; give another file");
  }
  std::signal(SIGPIPE, SIG_IGN);
  AddPluginPath();
  const int reportFd = ReserveStandardOutput();
  if (reportFd < 0) return Complain(FailureExitStatus, std::string("standard output: ") + std::strerror(errno));
  const int status = Record(options, reportFd);
  Kbase::Klog::Logger::GetInstance().Flush();
  return status;
}
