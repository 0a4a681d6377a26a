// The running library: processor time of both cameras against the same pipeline built by gst-launch-1.0, memory, and
// what sound and sensors take beside the cameras.
//
//   tavi-bench-acquisition cpu [seconds a round] [rounds]
//   tavi-bench-acquisition memory [events]
//   tavi-bench-acquisition sensors [seconds]
//   tavi-bench-acquisition holdup [rounds]
//   tavi-bench-acquisition holdup-disk DIR MBPS MS...   by scripts/bench-holdup.sh
#include <fmt/format.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "HoldUpBench.h"
#include "Kbase/Klog/Logger.h"
#include "Recorder/PluginPath.h"
#include "Recorder/Simulation.h"
#include "Tavi/EventCollect/PipelineCollectManager.h"
#include "Tavi/GstUtil/GstPipelineCbElement.h"
#include "Tavi/Pipeline/PipelineManager.h"

namespace {

using namespace Tavi::Pipeline;

PipelineConfig BuildConfig() {
  PipelineConfig config;
  config.audioEnabled = config.gpsEnabled = config.accEnabled = config.otherEnabled = false;
  config.camera0.device = "sim:camera1";
  config.camera1.device = "sim:camera0";
  return config;
}

void SleepSeconds(int seconds) {
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
}

/// The branch of one camera as gst-launch-1.0 takes it, with nobody at its ends.
std::string DescribeBranch(const Tavi::Video::VideoConfig& camera, const std::string& name) {
  return fmt::format(
      "imxv4l2videosrc device={0} fps-n={1} queue-size=20 ! tee name={2} "
      "{2}. ! queue ! fakesink sync=true "
      "{2}. ! queue ! imxvpuenc_h264 bitrate={3} idr-interval={1} gop-size={1} ! fakesink sync=true "
      "{2}. ! queue ! videorate max-rate=30 drop-only=true ! imxipuvideotransform ! "
      "video/x-raw,format=I420,width={4},height={5} ! fakesink sync=true ",
      camera.device, camera.fps, name, camera.bitrate, camera.previewWidth, camera.previewHeight);
}

double ToSeconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

/// Processor seconds of a child that runs `arguments` for `seconds` and is then interrupted.
double MeasureChild(std::vector<std::string> arguments, int seconds) {
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  pid_t child = 0;
  if (posix_spawnp(&child, argv[0], nullptr, nullptr, argv.data(), environ) != 0) return -1.0;
  SleepSeconds(seconds);
  kill(child, SIGINT);
  int status = 0;
  rusage usage{};
  wait4(child, &status, 0, &usage);
  return ToSeconds(usage.ru_utime) + ToSeconds(usage.ru_stime);
}

/// What the child of the processor-time measurement does: acquire until it is interrupted.
int RunLibrary() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  PipelineManager manager(BuildConfig());
  manager.Start();
  int signal = 0;
  sigwait(&signals, &signal);
  manager.RunSigInt();
  return 0;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return (values[(values.size() - 1) / 2] + values[values.size() / 2]) / 2;
}

int CompareProcessorTime(const std::string& self, int seconds, int rounds) {
  const PipelineConfig config = BuildConfig();
  std::vector<std::string> peer{"gst-launch-1.0", "-q"};
  const std::string description = DescribeBranch(config.camera0, "a") + DescribeBranch(config.camera1, "b");
  for (std::size_t at = 0; at < description.size();) {
    const auto end = std::min(description.find(' ', at), description.size());
    if (end > at) peer.push_back(description.substr(at, end - at));
    at = end + 1;
  }
  std::vector<double> ratios;
  for (int round = 0; round < rounds; ++round) {
    // The order alternates, so that a machine that speeds up or slows down favours nobody.
    const bool libraryFirst = round % 2 == 0;
    const double first = libraryFirst ? MeasureChild({self, "library"}, seconds) : MeasureChild(peer, seconds);
    const double second = libraryFirst ? MeasureChild(peer, seconds) : MeasureChild({self, "library"}, seconds);
    const double library = libraryFirst ? first : second;
    const double launch = libraryFirst ? second : first;
    ratios.push_back(library / launch);
    fmt::print("round {}: library {:.2f} s, gst-launch-1.0 {:.2f} s of processor time in {} s: ratio {:.3f}\n",
               round + 1, library, launch, seconds, library / launch);
  }
  fmt::print("median ratio {:.3f}\n", Median(ratios));
  return 0;
}

double ReadResidentMegabytes() {
  std::ifstream file("/proc/self/statm");
  long total = 0;
  long resident = 0;
  file >> total >> resident;
  return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1e6;
}

long CountEntries(const char* directory) {
  return std::distance(std::filesystem::directory_iterator(directory), std::filesystem::directory_iterator());
}

/// Megabytes of media that the rings hold.
double SumRings(const PipelineManager& manager) {
  std::size_t bytes = 0;
  for (int type = 0; type <= static_cast<int>(PipelineType::Preview1); ++type) {
    const auto ring = manager.ShareElement(static_cast<PipelineType>(type));
    for (unsigned int pos = 0; ring && pos < ring->GetRingSize(); ++pos) {
      const auto entry = std::dynamic_pointer_cast<Tavi::GstUtil::GstPipelineCbElement>(ring->GetElementAt(pos));
      if (entry) bytes += gst_buffer_get_size(entry->buffer);
    }
  }
  return static_cast<double>(bytes) / 1e6;
}

int MeasureMemory(int events) {
  const std::string dir = "/tmp/tavi-bench-memory/";
  PipelineManager manager(BuildConfig());
  Tavi::PipelineCollect::PipelineCollectManagerConfig config;
  config.pipelineManager = &manager;
  config.workDir = dir;
  config.backupDir = dir + "backup/";
  Tavi::PipelineCollect::PipelineCollectManager collect(config);
  manager.Start();
  SleepSeconds(7);  // by then the preview rings are full
  const double baseResident = ReadResidentMegabytes();
  const double baseRings = SumRings(manager);
  SleepSeconds(30);
  const double fullResident = ReadResidentMegabytes();
  const double fullRings = SumRings(manager);
  fmt::print("after 7 s: {:.1f} MB resident, {:.1f} MB in the rings; base {:.1f} MB\n", baseResident, baseRings,
             baseResident - baseRings);
  fmt::print("after 37 s: {:.1f} MB resident, {:.1f} MB in the rings: {:.3f} of them above the base\n", fullResident,
             fullRings, (fullResident - (baseResident - baseRings)) / fullRings);
  for (int event = 1; event <= events; ++event) {
    Tavi::PipelineCollect::PipelineCollectInput input{-5, 1, false, dir + "event", false};
    Tavi::PipelineCollect::PipelineCollectOutput output;
    if (!collect.Collect(input, output) || output.windows.size() != 2) {
      fmt::print(stderr, "event {} has {} streams and {} files instead of two clips\n", event, output.windows.size(),
                 output.outputs.size());
      return 1;
    }
    std::filesystem::remove_all(dir + "event");
    if (event % 10 == 0 || event == 1) {
      fmt::print("after event {}: {:.1f} MB resident, {:.1f} MB in the rings, {} threads, {} descriptors\n", event,
                 ReadResidentMegabytes(), SumRings(manager), CountEntries("/proc/self/task"),
                 CountEntries("/proc/self/fd"));
    }
  }
  std::filesystem::remove_all(dir);
  return 0;
}

double UsedSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return ToSeconds(usage.ru_utime) + ToSeconds(usage.ru_stime);
}

/// Processor seconds of this process while it acquires for `seconds`, once it has settled.
double MeasureAcquisition(const PipelineConfig& config, int seconds) {
  PipelineManager manager(config);
  manager.Start();
  SleepSeconds(3);
  const double before = UsedSeconds();
  SleepSeconds(seconds);
  const double used = UsedSeconds() - before;
  manager.RunSigInt();
  return used;
}

/// Processor seconds of this process while a pipeline runs to its end.
double MeasurePipeline(const std::string& description) {
  GstElement* pipeline = gst_parse_launch(description.c_str(), nullptr);
  GstBus* bus = gst_element_get_bus(pipeline);
  const double before = UsedSeconds();
  gst_element_set_state(pipeline, GST_STATE_PLAYING);
  gst_message_unref(gst_bus_timed_pop_filtered(bus, GST_CLOCK_TIME_NONE,
                                               static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR)));
  const double used = UsedSeconds() - before;
  gst_element_set_state(pipeline, GST_STATE_NULL);
  gst_object_unref(bus);
  gst_object_unref(pipeline);
  return used;
}

/// Sound, position, motion and machine state in the simulated car, whose own work is part of it, against the cameras.
int MeasureSensors(int seconds) {
  PipelineConfig config;
  const auto car = Tavi::Recorder::BoardSimulatedCar(config);
  PipelineConfig cameras = config;
  cameras.audioEnabled = cameras.gpsEnabled = cameras.accEnabled = cameras.otherEnabled = false;
  const double camerasSeconds = MeasureAcquisition(cameras, seconds);
  config.camera0Enabled = config.camera1Enabled = false;
  const double others = MeasureAcquisition(config, seconds);
  // At the microphone's own pace: an encoder that runs through its work at once finds all of it in the caches.
  const std::string microphone = fmt::format("alsasrc latency-time=26109 num-buffers={} ! ", seconds * 383 / 10);
  const double with = MeasurePipeline(
      microphone + fmt::format("imxmp3audioenc high-quality-mode=true bitrate={} ! fakesink", config.audio.bitrate));
  const double encoder = with - MeasurePipeline(microphone + "audio/x-raw,rate=44100,channels=2 ! fakesink");
  const double own = others - encoder;
  fmt::print(
      "in {} s: cameras {:.2f} s of processor time, the other four sources {:.3f} s, of it the MP3 encoder {:.3f} s\n",
      seconds, camerasSeconds, others, encoder);
  fmt::print("without the encoder: {:.2f} % of a core, {:.4f} of the cameras' time\n", 100.0 * own / seconds,
             own / camerasSeconds);
  return 0;
}

}  // namespace

int main(int argc, char** argv) try {
  Tavi::Recorder::AddPluginPath();
  Kbase::Klog::Logger::GetInstance().SetConsole(false);
  const std::string what = argc > 1 ? argv[1] : "";
  const auto number = [&](int index, int otherwise) { return argc > index ? std::atoi(argv[index]) : otherwise; };
  if (what == "library") return RunLibrary();
  if (what == "cpu")
    return CompareProcessorTime(std::filesystem::read_symlink("/proc/self/exe"), number(2, 20), number(3, 6));
  if (what == "memory") return MeasureMemory(number(2, 50));
  if (what == "sensors") return MeasureSensors(number(2, 60));
  if (what == "holdup-disk" && argc > 4) {
    std::vector<int> moments;
    for (int i = 4; i < argc; ++i) moments.push_back(std::atoi(argv[i]));
    return MeasureHoldUpOnDisk(argv[2], std::atof(argv[3]), moments);
  }
  if (what == "holdup") return MeasureHoldUp(number(2, 5));
  fmt::print(stderr,
             "usage: tavi-bench-acquisition cpu [seconds a round] [rounds] | memory [events] | sensors [seconds] | "
             "holdup [rounds] | holdup-disk DIR MBPS MS...\n");
  return 2;
} catch (const std::exception& error) {
  std::fprintf(stderr, "tavi-bench-acquisition: %s\n", error.what());
  return 1;
}
