// Muxing a 30 s, 3 Mbit/s stream into an MP4, against the ffmpeg program copying the same streams.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "KMedia/FFMpeg/FFMpeg.h"
#include "Simulator/EncodedMaterial.h"

namespace {

using KMedia::FFMpeg;

constexpr int Fps = 30;
constexpr int Seconds = 30;

/// The inputs, on a RAM disk where there is one, as in the unit.
struct Material {
  Material() : dir(std::filesystem::is_directory("/dev/shm") ? "/dev/shm/tavi-bench/" : "/tmp/tavi-bench/") {
    std::filesystem::create_directories(dir);
    const auto units = Tavi::Simulator::EncodeH264(1280, 720, Fps, Fps, Fps * Seconds,
                                                   "bitrate=3000:vbv-maxrate=3000:vbv-bufsize=3000");
    Tavi::Simulator::WriteBytes(dir + "in.h264", Tavi::Simulator::Join(units));
    Tavi::Simulator::WriteBytes(dir + "in.mp3", Tavi::Simulator::EncodeMp3(Seconds));
  }
  ~Material() { std::filesystem::remove_all(dir); }
  const std::string dir;

  static const Material& Get() {
    static const Material material;
    return material;
  }
};

void MuxTavi(benchmark::State& state) {
  const auto& material = Material::Get();
  FFMpeg::FFmpefCfg config;
  config.fps = Fps;
  FFMpeg::SetPath(config.video, material.dir + "in.h264");
  FFMpeg::SetPath(config.audio, material.dir + "in.mp3");
  FFMpeg::SetPath(config.output, material.dir + "out.mp4");
  for (auto _ : state) {
    const bool muxed = state.range(0) != 0 ? FFMpeg(&config).MuxVideoAndAudio() : FFMpeg(&config).RemuxVideoFile();
    if (!muxed) state.SkipWithError("the mux failed");
  }
  state.counters["megabytes"] = static_cast<double>(std::filesystem::file_size(material.dir + "in.h264")) / 1e6;
}

/// Runs `arguments` to its end; false when it fails.
bool RunProgram(std::vector<std::string> arguments) {
  std::vector<char*> argv;
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  pid_t child = 0;
  if (posix_spawnp(&child, argv[0], nullptr, nullptr, argv.data(), environ) != 0) return false;
  int status = 0;
  return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void MuxFfmpegProgram(benchmark::State& state) {
  const auto& dir = Material::Get().dir;
  std::vector<std::string> arguments{"ffmpeg", "-nostdin", "-loglevel", "error",        "-y",
                                     "-r",     "30",       "-i",        dir + "in.h264"};
  if (state.range(0) != 0) arguments.insert(arguments.end(), {"-i", dir + "in.mp3"});
  arguments.insert(arguments.end(), {"-c", "copy", dir + "peer.mp4"});
  for (auto _ : state) {
    if (!RunProgram(arguments)) state.SkipWithError("ffmpeg failed");
  }
}

BENCHMARK(MuxTavi)->ArgName("sound")->Arg(0)->Arg(1)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(MuxFfmpegProgram)->ArgName("sound")->Arg(0)->Arg(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
