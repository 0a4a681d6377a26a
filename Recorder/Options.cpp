// What the recorder is told on its command line.
#include "Recorder/Options.h"
#include "Recorder/Devices/DeviceList.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cmath>
#include <ostream>
#include <set>

#include "Control/CommandLine.h"
#include "Kbase/Json/Json.h"
#include "Recorder/Settings/Limits.h"
#include "Recorder/Version.h"

namespace Tavi::Recorder {
namespace {

constexpr int UsageExitStatus = 2;

/// Accepts whole numbers within `range`; anything else is answered with what would be right.
CLI::Validator WholeNumber(Limits::Range<int> range) {
  return CLI::Validator(
      [low = range.low, high = range.high](std::string& text) -> std::string {
        int value = 0;
        if (CLI::detail::lexical_cast(text, value) && value >= low && value <= high) return {};
        return fmt::format("\"{}\" is no whole number from {} to {}", text, low, high);
      },
      fmt::format("{}..{}", range.low, range.high));
}

CLI::Validator Seconds(double low, double high) {
  return CLI::Validator(
      [low, high](std::string& text) -> std::string {
        double value = 0.0;
        if (CLI::detail::lexical_cast(text, value) && std::isfinite(value) && value >= low && value <= high) return {};
        return fmt::format("\"{}\" is no number of seconds from {} to {}", text, low, high);
      },
      fmt::format("{}..{} s", low, high));
}

void AddCameraOptions(CLI::App& app, const std::string& number, Video::VideoConfig& camera, bool& enabled) {
  const std::string group = "Camera " + number;
  const auto inGroup = [&group](CLI::Option* option) { return option->group(group)->capture_default_str(); };
  inGroup(app.add_option("--device" + number, camera.device, "V4L2 capture device"));
  inGroup(app.add_option("--fps" + number, camera.fps, "Frames a second"))->check(WholeNumber(Limits::Fps));
  inGroup(app.add_option("--bitrate" + number, camera.bitrate, "H.264 bit rate in kbit/s"))
      ->check(WholeNumber(Limits::VideoBitrateKbit));
  inGroup(app.add_option("--port" + number, camera.streamPort, "TCP port of the live stream"))
      ->check(WholeNumber(Limits::Port));
  app.add_flag("--stream" + number, camera.streamEnabled,
               "Serve the stream live on every interface, without any authentication")
      ->group(group);
  app.add_flag("--crop" + number, camera.cropEnabled, "Cut the border of the picture away")->group(group);
  app.add_flag("!--no-preview" + number, camera.previewEnabled, "Keep no preview frames")->group(group);
  app.add_flag("!--no-camera" + number, enabled, "Leave this camera out")->group(group);
}

void AddSensorOptions(CLI::App& app, Pipeline::PipelineConfig& pipeline) {
  const auto inGroup = [](CLI::Option* option) { return option->group("Sound and sensors")->capture_default_str(); };
  inGroup(app.add_option("--audio-bitrate", pipeline.audio.bitrate, "MP3 bit rate in kbit/s"))
      ->check(CLI::IsMember(std::set<int>(Limits::Mp3BitratesKbit.begin(), Limits::Mp3BitratesKbit.end())));
  inGroup(app.add_option("--gain", pipeline.audio.gainLevel,
                         "Capture gain in the sound card's own scale; -1 leaves the card's mixer untouched"))
      ->check(WholeNumber(Limits::Gain));
  inGroup(app.add_option("--gps", pipeline.gps.path,
                         "GPS receiver: a serial port, gpsd://HOST:PORT, a FIFO, or a log to be replayed"));
  inGroup(app.add_option("--gps-rate", pipeline.gps.rate, "Fixes a second that the receiver sends"))
      ->check(WholeNumber(Limits::GpsRate));
  inGroup(app.add_option("--gps-baud", pipeline.gps.baud, "Bits per second of the receiver's port"))
      ->check(CLI::IsMember(std::set<int>(Limits::GpsBauds.begin(), Limits::GpsBauds.end())));
  inGroup(app.add_flag("!--no-audio", pipeline.audioEnabled, "Leave the microphone out"));
  inGroup(app.add_flag("!--no-gps", pipeline.gpsEnabled, "Leave the GPS receiver out"));
  inGroup(app.add_flag("!--no-acc", pipeline.accEnabled, "Leave the accelerometer out"));
  inGroup(app.add_flag("!--no-metrics", pipeline.otherEnabled, "Leave processor load and temperature out"));
}

void AddOptions(CLI::App& app, Options& options) {
  app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  app.set_version_flag("--version", Version);
  app.add_flag("--simulate", options.simulate, "A simulated car in place of the devices (--gps still counts)");
  app.add_option("--collect-after", options.collectAfterSeconds,
                 "Seconds from the start, or the event before, to an event")
      ->check(Seconds(0, 86400))
      ->capture_default_str();
  app.add_option("--start", options.startSeconds, "Start of the window in seconds relative to the event")
      ->check(WholeNumber(Limits::StartSeconds))
      ->capture_default_str();
  app.add_option("--duration", options.durationSeconds, "Length of the window in seconds")
      ->check(WholeNumber(Limits::DurationSeconds))
      ->capture_default_str();
  app.add_option("--count", options.eventCount, "Number of events")
      ->check(WholeNumber({1, 1000000}))
      ->capture_default_str();
  app.add_flag("--async", options.async, "Mux an event while the next one is waited for or collected");
  app.add_flag("--preview", options.withPreview, "Make the small clip of both cameras side by side, and its still");
  app.add_flag("--second-manager", options.secondManager, "Collect every event a second time, beside the first");
  app.add_option("--output", options.outputDir, "Directory for the files of the events (required)");
  app.add_option("--backup", options.backupDir,
                 "Directory on persistent storage where events are saved when power fails (SIGPWR), and finished from "
                 "at the next start; the output directory unless given");
  app.add_flag("--json", options.json, "One JSON object an event, or the list of devices, on standard output");
  app.add_flag("--list-devices", options.listDevices,
               "Only print what is connected: cameras with their modes, sound cards, serial ports, accelerometers");
  app.add_option("--log", options.logFile, "Append the log to this file, too");
  AddCameraOptions(app, "0", options.pipeline.camera0, options.pipeline.camera0Enabled);
  AddCameraOptions(app, "1", options.pipeline.camera1, options.pipeline.camera1Enabled);
  AddSensorOptions(app, options.pipeline);
}

/// What no single option can tell; empty when all is well.
std::string CheckTogether(const Options& options) {
  const auto& [camera0, camera1] = std::tie(options.pipeline.camera0, options.pipeline.camera1);
  if (options.outputDir.empty())
    return "--output: it is missing or empty; give a directory for the files of the events";
  const auto& all = options.pipeline;
  if (!all.camera0Enabled && !all.camera1Enabled && !all.audioEnabled && !all.gpsEnabled && !all.accEnabled &&
      !all.otherEnabled) {
    return "--no-camera0 and the other --no-...: nothing is left to record; leave one out";
  }
  const bool anyPreview =
      (all.camera0Enabled && camera0.previewEnabled) || (all.camera1Enabled && camera1.previewEnabled);
  if (options.withPreview && !anyPreview) return "--preview: no camera keeps preview frames; leave --no-preview... out";
  if (!options.pipeline.camera0Enabled || !options.pipeline.camera1Enabled) return {};
  if (!options.simulate && camera0.device == camera1.device) {
    return fmt::format("--device0 and --device1: both are \"{}\"; give each camera a device of its own",
                       camera0.device);
  }
  if (camera0.streamEnabled && camera1.streamEnabled && camera0.streamPort == camera1.streamPort) {
    return fmt::format("--port0 and --port1: both are {}; give each stream a port of its own", camera0.streamPort);
  }
  return {};
}

}  // namespace

std::optional<int> ParseOptions(int argc, const char* const* argv, Options& options, std::ostream& out,
                                std::ostream& err) {
  CLI::App app(
      "Records two cameras, sound, position, acceleration and machine state, keeps the last 32 seconds in memory and "
      "writes a window around each event.",
      "tavi-recorder");
  AddOptions(app, options);
  app.footer(
      "Forms:\n  tavi-recorder --output DIR [OPTIONS]   takes a number of events, and ends\n"
      "  tavi-recorder --list-devices [--json]  tells what is connected\n"
      "  tavi-recorder run [OPTIONS]            is the service; tavi-recorder run --help tells its options");
  std::string problem;
  try {
    CommandLine::Parse(app, argc, argv);
    if (options.listDevices) {
      const auto devices = Devices::ListDevices();
      out << (options.json ? Kbase::Json::PrintLines(Devices::ToJson(devices)) : Devices::FormatText(devices));
      return 0;
    }
    problem = CheckTogether(options);
  } catch (const CLI::Success& done) {
    app.exit(done, out, err);
    return 0;
  } catch (const CLI::ParseError& error) {
    problem = error.what();
  }
  if (problem.empty()) return std::nullopt;
  err << "tavi-recorder: " << problem << "\n";
  return UsageExitStatus;
}

}  // namespace Tavi::Recorder
