// tavi-recorder: records and turns events into files.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <limits>
#include <memory>
#include <mutex>

#include "Kbase/Klog/Logger.h"
#include "Kbase/Util/TemperatureMonitor.h"
#include "Ksystem/System/Reboot.h"
#include "Recorder/InputDevices.h"
#include "Recorder/Options.h"
#include "Recorder/PluginPath.h"
#include "Recorder/Recorder.h"
#include "Recorder/Service/Service.h"
#include "Recorder/ServiceOptions.h"
#include "Recorder/SignalThread.h"
#include "Recorder/Simulation.h"
#include "Tavi/GstUtil/Log.h"

namespace {

using namespace Tavi::Recorder;

constexpr int FailureExitStatus = 1;
constexpr int UsageExitStatus = 2;

int Complain(int exitStatus, const std::string& sentence) {
  std::cerr << "tavi-recorder: " + sentence + "\n";
  return exitStatus;
}

/// Hands signals on to what runs, while it does. A restart of the unit is a power failure that was announced: what is
/// being collected is saved first.
template <class Running>
class Signalled {
 public:
  Signalled() : m_signals([this](int signal) { Take(signal); }) {}

  int Run(Running& running) {
    Set(&running);
    // Whoever restarts the unit runs on a thread of the acquisition, which is to be taken down now.
    Ksystem::System::SetRebootHandler([this] {
      m_isRestarting = true;
      kill(getpid(), SIGPWR);
    });
    const int status = running.Run();
    Ksystem::System::SetRebootHandler({});
    Set(nullptr);
    if (m_isRestarting) Ksystem::System::Reboot();
    return status;
  }

 private:
  void Take(int signal) {
    const std::lock_guard lock(m_mutex);
    if (m_running == nullptr) return;
    if (signal == SIGPWR) {
      m_running->PowerFail(m_isRestarting ? "the unit is to be restarted" : "power fails");
    } else {
      m_running->Stop();
    }
  }

  void Set(Running* running) {
    const std::lock_guard lock(m_mutex);
    m_running = running;
  }

  std::mutex m_mutex;
  Running* m_running = nullptr;
  std::atomic<bool> m_isRestarting{false};
  const SignalThread m_signals;
};

/// Keeps standard output for the reports: what the media framework prints there goes to standard error.
int ReserveStandardOutput() {
  const int reportFd = dup(STDOUT_FILENO);
  if (reportFd >= 0) dup2(STDERR_FILENO, STDOUT_FILENO);
  return reportFd;
}

int Record(Options options, int reportFd) {
  Signalled<Recorder> signalled;
  const auto car = options.simulate ? BoardSimulatedCar(options.pipeline) : nullptr;
  if (car && !car->GetProblem().empty()) return Complain(FailureExitStatus, car->GetProblem());
  const std::string missing = DescribeMissingDevices(options.pipeline, options.simulate, OptionHints);
  if (!missing.empty()) return Complain(FailureExitStatus, missing);
  Kbase::Util::TemperatureMonitor::GetInstance().Start();
  const auto recorder = std::make_unique<Recorder>(options, reportFd);
  std::string problem;
  return recorder->Open(problem) ? signalled.Run(*recorder) : Complain(FailureExitStatus, problem);
}

int Serve(Settings settings) {
  Signalled<Service> signalled;
  const auto car = settings.simulate ? BoardSimulatedCar(settings.pipeline) : nullptr;
  if (car && !car->GetProblem().empty()) return Complain(FailureExitStatus, car->GetProblem());
  // One device that is missing keeps nobody from recording with the others; it may come later.
  const std::string missing = DescribeMissingDevices(settings.pipeline, settings.simulate, SettingHints);
  if (!missing.empty()) Tavi::Log::Warning(missing);
  Kbase::Util::TemperatureMonitor::GetInstance().SetZone(settings.temperatureZone);
  Kbase::Util::TemperatureMonitor::GetInstance().Start();
  Service service(settings);
  std::string problem;
  return service.Open(problem) ? signalled.Run(service) : Complain(FailureExitStatus, problem);
}

bool OpenLog(const std::string& file, std::uint64_t maxBytes = 0, int oldFiles = 0) {
  // No file of the log becomes larger than a 32-bit machine can count.
  const auto limit =
      static_cast<std::size_t>(std::min<std::uint64_t>(maxBytes, std::numeric_limits<std::size_t>::max()));
  return file.empty() || Kbase::Klog::Logger::GetInstance().SetFile(file, {limit, static_cast<std::size_t>(oldFiles)});
}

int RunService(int argc, char** argv) {
  Settings settings;
  if (const auto status = ParseServiceOptions(argc, argv, settings, std::cout, std::cerr)) return *status;
  if (!OpenLog(settings.logFile, settings.logFileMaxBytes, settings.logFileCount)) {
    return Complain(UsageExitStatus, "logFile: \"" + settings.logFile + "\" cannot be written; give another file");
  }
  return Serve(settings);
}

int RunOnce(int argc, char** argv) {
  Options options;
  if (const auto status = ParseOptions(argc, argv, options, std::cout, std::cerr)) return *status;
  std::error_code error;
  std::filesystem::create_directories(options.outputDir, error);
  if (!std::filesystem::is_directory(options.outputDir, error) || access(options.outputDir.c_str(), W_OK) != 0) {
    return Complain(UsageExitStatus, "--output: nothing can be written into \"" + options.outputDir +
                                         "\"; give a directory that can be created or written to");
  }
  if (!OpenLog(options.logFile)) {
    return Complain(UsageExitStatus, "--log: \"" + options.logFile + "\" cannot be written; give another file");
  }
  const int reportFd = ReserveStandardOutput();
  if (reportFd < 0) return Complain(FailureExitStatus, std::string("standard output: ") + std::strerror(errno));
  return Record(options, reportFd);
}

}  // namespace

int main(int argc, char** argv) {
  // First of all: whatever is logged starts a thread.
  SignalThread::Block();
  std::signal(SIGPIPE, SIG_IGN);
  AddPluginPath();
  const bool asService = argc > 1 && std::strcmp(argv[1], "run") == 0;
  const int status = asService ? RunService(argc - 1, argv + 1) : RunOnce(argc, argv);
  Kbase::Klog::Logger::GetInstance().Flush();
  return status;
}
