// How long the unit's supply must bridge a power failure.
#include "HoldUpBench.h"

#include <fmt/format.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Kbase/Klog/Logger.h"
#include "Recorder/Simulation.h"
#include "Tavi/EventCollect/PipelineCollectManager.h"
#include "Tavi/Pipeline/PipelineManager.h"

namespace {

using namespace Tavi::PipelineCollect;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

const std::string Dir = "/dev/shm/tavi-bench-holdup/";

double ToMilliseconds(Clock::duration duration) {
  return std::chrono::duration<double, std::milli>(duration).count();
}

/// When the save said that it had come how far.
class Milestones {
 public:
  Milestones() {
    Kbase::Klog::Logger::GetInstance().SetObserver([this](Kbase::Klog::Level, std::string_view line) {
      const std::lock_guard lock(m_mutex);
      for (std::size_t i = 0; i < Texts.size(); ++i) {
        if (line.ends_with(Texts[i])) m_times[i] = Clock::now();
      }
    });
  }
  ~Milestones() { Kbase::Klog::Logger::GetInstance().SetObserver({}); }
  Milestones(const Milestones&) = delete;
  Milestones& operator=(const Milestones&) = delete;

  /// Collectors ended, acquisition stopped, files saved.
  std::array<Clock::time_point, 3> Read() {
    Kbase::Klog::Logger::GetInstance().Flush();
    const std::lock_guard lock(m_mutex);
    return m_times;
  }

 private:
  static constexpr std::array<std::string_view, 3> Texts{
      "[Power Failure]Stopping the aquisition...", "[Power Failure]Making backup...", "[Power Failure]Backup finished"};
  std::mutex m_mutex;
  std::array<Clock::time_point, 3> m_times;
};

/// The saved files copied and synced by the shell's means, on the same disk.
double MeasurePeer() {
  std::string command = fmt::format("mkdir {0}peer && cp {0}backup/* {0}peer && sync {0}peer/* {0}peer", Dir);
  std::string shell = "sh";
  std::string option = "-c";
  char* arguments[] = {shell.data(), option.data(), command.data(), nullptr};
  pid_t child = 0;
  int status = 0;
  const auto start = Clock::now();
  if (posix_spawnp(&child, "sh", nullptr, nullptr, arguments, environ) != 0) return -1.0;
  waitpid(child, &status, 0);
  return status == 0 ? ToMilliseconds(Clock::now() - start) : -1.0;
}

double SumMegabytes(const std::string& dir) {
  double bytes = 0.0;
  for (const auto& file : fs::directory_iterator(dir)) bytes += static_cast<double>(file.file_size());
  return bytes / 1e6;
}

/// What the block device that `dir` is on has written since it is there, in MB; 0 where there is no such device.
double ReadWrittenMegabytes(const std::string& dir) {
  struct stat status {};
  if (::stat(dir.c_str(), &status) != 0) return 0.0;
  std::ifstream file(fmt::format("/sys/dev/block/{}:{}/stat", major(status.st_dev), minor(status.st_dev)));
  // Documentation/block/stat.rst: the seventh is the number of sectors of 512 bytes.
  double value = 0.0;
  for (int i = 0; i < 7; ++i) file >> value;
  return file ? value * 512.0 / 1e6 : 0.0;
}

/// What fails, where it is saved, and how.
struct Failure {
  int lookBack = 15;
  std::chrono::milliseconds after{0};
  std::string backupDir = Dir + "backup/";
  double copyAheadMBps = 0.0;
  /// As the recorder asks for its events; else as a caller of the library who leaves everything as it is.
  bool asRecorder = false;
};

struct Round {
  double collectorsMs = 0.0;
  double stopMs = 0.0;
  double copyMs = 0.0;
  double peerMs = 0.0;
  [[nodiscard]] double Total() const { return collectorsMs + stopMs + copyMs; }
};

/// One event in which power fails. The peer is measured on the RAM disk alone.
Round RunOnce(const Tavi::Pipeline::PipelineConfig& pipeline, const Failure& failure) {
  const bool onDisk = !failure.backupDir.starts_with(Dir);
  fs::remove_all(Dir);
  fs::remove_all(failure.backupDir);
  Tavi::Pipeline::PipelineManager manager(pipeline);
  PipelineCollectManagerConfig config;
  config.pipelineManager = &manager;
  config.workDir = Dir;
  config.backupDir = failure.backupDir;
  config.copyAheadMBps = failure.copyAheadMBps;
  PipelineCollectManager collect(config);
  Milestones milestones;
  manager.RunIgnitionStart();
  std::this_thread::sleep_for(std::chrono::seconds(failure.lookBack + 2));
  PipelineCollectInput input{-failure.lookBack, 30, true, Dir + "event", false};
  if (failure.asRecorder) {
    input.care = {Clock::now(), true, 0, 32, true};
    input.name = "0a1b2c3d";
  }
  const double before = ReadWrittenMegabytes(failure.backupDir);
  PipelineCollectOutput output;
  auto event = std::async(std::launch::async, [&] { return collect.Collect(input, output); });
  std::this_thread::sleep_for(failure.after);
  const auto failed = Clock::now();
  collect.PowerFailure();
  event.get();
  const auto [ended, stopped, saved] = milestones.Read();
  const Round round{ToMilliseconds(ended - failed), ToMilliseconds(stopped - ended), ToMilliseconds(saved - stopped),
                    onDisk ? 0.0 : MeasurePeer()};
  fmt::print("  {:.1f} ms: collectors {:.1f}, stop {:.1f}, copies {:.1f} of {} files, {:.1f} MB; ", round.Total(),
             round.collectorsMs, round.stopMs, round.copyMs,
             std::distance(fs::directory_iterator(failure.backupDir), {}), SumMegabytes(failure.backupDir));
  if (onDisk) {
    fmt::print("{:.1f} s into the event, {:.1f} MB written by the disk\n",
               std::chrono::duration<double>(failure.after).count(), ReadWrittenMegabytes(failure.backupDir) - before);
  } else {
    fmt::print("cp and sync {:.1f} ms\n", round.peerMs);
  }
  std::fflush(stdout);
  fs::remove_all(Dir);
  fs::remove_all(failure.backupDir);
  return round;
}

double Median(const std::vector<Round>& rounds, double (*value)(const Round&)) {
  std::vector<double> values;
  std::transform(rounds.begin(), rounds.end(), std::back_inserter(values), value);
  std::sort(values.begin(), values.end());
  return (values[(values.size() - 1) / 2] + values[values.size() / 2]) / 2;
}

void MeasureCase(const char* what, const Tavi::Pipeline::PipelineConfig& pipeline, const Failure& failure, int count) {
  fmt::print("{}\n", what);
  std::vector<Round> rounds;
  rounds.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) rounds.push_back(RunOnce(pipeline, failure));
  const auto total = [](const Round& round) { return round.Total(); };
  fmt::print(
      "  median {:.1f} ms (collectors {:.1f}, stop {:.1f}, copies {:.1f}), longest {:.1f} ms, {:.2f} of cp and sync\n",
      Median(rounds, total), Median(rounds, [](const Round& r) { return r.collectorsMs; }),
      Median(rounds, [](const Round& r) { return r.stopMs; }), Median(rounds, [](const Round& r) { return r.copyMs; }),
      std::max_element(rounds.begin(), rounds.end(),
                       [](const Round& a, const Round& b) { return a.Total() < b.Total(); })
          ->Total(),
      Median(rounds, [](const Round& r) { return r.Total() / r.peerMs; }));
}

}  // namespace

int MeasureHoldUp(int rounds) {
  Tavi::Pipeline::PipelineConfig config;
  const auto car = Tavi::Recorder::BoardSimulatedCar(config);
  if (!car->GetProblem().empty()) {
    fmt::print(stderr, "{}\n", car->GetProblem());
    return 1;
  }
  using std::chrono::milliseconds;
  MeasureCase("29 s of 30 written when power fails", config, {15, milliseconds(14'000)}, rounds);
  MeasureCase("all of 30 s still to be written when power fails", config, {30, milliseconds(200)}, rounds);
  return 0;
}

int MeasureHoldUpOnDisk(const std::string& dir, double copyAheadMBps, const std::vector<int>& momentsMs) {
  Tavi::Pipeline::PipelineConfig config;
  const auto car = Tavi::Recorder::BoardSimulatedCar(config);
  if (!car->GetProblem().empty()) {
    fmt::print(stderr, "{}\n", car->GetProblem());
    return 1;
  }
  fmt::print("copied ahead: {}\n", copyAheadMBps > 0.0 ? fmt::format("at most {} MB/s", copyAheadMBps) : "nothing");
  for (const int moment : momentsMs) {
    RunOnce(config, {15, std::chrono::milliseconds(moment), dir + "/backup/", copyAheadMBps, true});
  }
  return 0;
}
