// The description of all settings, which reading, writing, checking and the documentation go by.
#include "Recorder/Settings/Fields.h"

#include <algorithm>
#include <tuple>

#include "Kdevice/ACC/Mounting.h"
#include "Recorder/Settings/Limits.h"

namespace Tavi::Recorder {
namespace {

using SettingsFile::Allowed;
using SettingsFile::Field;
using Fields = std::vector<Field>;

constexpr const char* Optional = "missing for long, it is no reason to restart the unit";

void AddCamera(Fields& fields, const std::string& name, bool& enabled, Video::VideoConfig& camera, int type,
               std::string& called) {
  const auto add = [&](const char* member, Field::Target target, Allowed allowed, const char* unit,
                       const char* meaning) {
    fields.emplace_back(name + "." + member, target, allowed, unit, meaning);
  };
  fields.emplace_back(name + "Enabled", &enabled, Allowed(), "", "record this camera");
  add("name", &called, Limits::CameraNameBytes, "",
      "what people call it, as front; in events, page, exports and metrics");
  add("cameraType", SettingsFile::Fixed{type}, Limits::Range<int>{type, type}, "",
      "which camera the record is about; nothing to choose");
  add("device", &camera.device, Limits::PathBytes, "", "V4L2 capture device");
  add("width", &camera.width, Allowed::Even(Limits::Width), "pixels",
      "width of the recorded pictures; 1280 while they are cropped");
  add("height", &camera.height, Allowed::Even(Limits::Height), "pixels", "their height; 720 while they are cropped");
  add("fps", &camera.fps, Limits::Fps, "frames/s", "frame rate, and frames from one key frame to the next");
  add("bitrate", &camera.bitrate, Limits::VideoBitrateKbit, "kbit/s", "H.264 bit rate");
  add("streamEnabled", &camera.streamEnabled, {}, "",
      "serve the camera live on every interface, without any authentication");
  add("streamPort", &camera.streamPort, Limits::Port, "", "TCP port of the live stream");
  add("previewEnabled", &camera.previewEnabled, {}, "", "keep small frames for the preview clip");
  add("previewWidth", &camera.previewWidth, Allowed::Even(Limits::Width), "pixels",
      "width of the small frames; 320 while they are kept");
  add("previewHeight", &camera.previewHeight, Allowed::Even(Limits::Height), "pixels",
      "their height; 176 while they are kept");
  add("previewFps", &camera.previewFps, Limits::PreviewFps, "frames/s", "how many of them; exact where it divides fps");
  add("previewSeconds", &camera.previewSeconds, Limits::PreviewSeconds, "s", "how long they are kept");
  add("cropEnabled", &camera.cropEnabled, {}, "", "cut the border of the picture away");
  add("optional", &camera.optional, {}, "", Optional);
  add("encoder", &camera.encoder, Limits::Encoders, "",
      "H.264 encoder in software; auto takes hardware of the machine if it does the job, else x264, else openh264");
}

constexpr std::string_view AxesForm = "x, y and z in some order, as x,y,z or -z,x,y";

constexpr std::string_view GroupForm = "the name of a group, or empty";

/// What groupadd(8) takes.
bool IsGroupName(const std::string& text) {
  const auto isPlain = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; };
  const auto isRight = [&](char c) { return isPlain(c) || (c >= '0' && c <= '9') || c == '-' || c == '.'; };
  return text.empty() || (isPlain(text.front()) && std::ranges::all_of(text, isRight));
}

bool IsAxes(const std::string& text) {
  return Kdevice::ACC::Mounting::Parse(text).has_value();
}

void AddSensors(Fields& fields, Pipeline::PipelineConfig& pipeline) {
  const auto& [audio, gps, acc] = std::tie(pipeline.audio, pipeline.gps, pipeline.acc);
  fields.insert(
      fields.end(),
      {{"pipeline.audioEnabled", &pipeline.audioEnabled, {}, "", "record the microphone"},
       {"pipeline.audio.bitrate", &audio.bitrate, Limits::Mp3BitratesKbit, "kbit/s", "MP3 bit rate"},
       {"pipeline.audio.frameRate", &audio.frameRate, Limits::Mp3FrameRate, "frames/s",
        "MP3 frames a second: 38.3 at 44.1 kHz, 41.67 at 48 kHz, 27.78 at 32 kHz"},
       {"pipeline.audio.gainLevel", &audio.gainLevel, Limits::Gain, "",
        "capture gain in the sound card's own scale; -1 leaves its mixer untouched"},
       {"pipeline.audio.device", &audio.device, Limits::OptionalPathBytes, "",
        "ALSA's name of the sound card, as plughw:1,0; empty for ALSA's default"},
       {"pipeline.audio.channels", &audio.channels, Limits::Channels, "", "1 or 2; 0 leaves it to the sound card"},
       {"pipeline.audio.rate", &audio.rate, Limits::SampleRates, "Hz",
        "samples a second; 0 leaves it to the encoder, whose is 44100"},
       {"pipeline.audio.optional", &audio.optional, {}, "", Optional},
       {"pipeline.gpsEnabled", &pipeline.gpsEnabled, {}, "", "record the GPS receiver"},
       {"pipeline.gps.rate", &gps.rate, Limits::GpsRate, "fixes/s", "what the receiver sends"},
       {"pipeline.gps.path", &gps.path, Limits::OptionalPathBytes, "",
        "a serial port, gpsd://host:port, a FIFO, or a log to be replayed; empty for /dev/gps0"},
       {"pipeline.gps.baud", &gps.baud, Limits::GpsBauds, "bit/s", "speed of a serial port"},
       {"pipeline.gps.optional", &gps.optional, {}, "", Optional},
       {"pipeline.accEnabled", &pipeline.accEnabled, {}, "", "record the accelerometer"},
       {"pipeline.acc.rate", &acc.rate, Limits::AccRate, "blocks/s",
        "what its driver delivers: 10 blocks of 10 samples"},
       {"pipeline.acc.bus", &acc.bus, Limits::I2cBus, "", "number of the I2C bus"},
       {"pipeline.acc.address", &acc.address, Limits::AccAddresses, "",
        "of the chip on its bus: 28 is 0x1C, 29 is 0x1D"},
       {"pipeline.acc.device", &acc.device, Limits::OptionalPathBytes, "",
        "an accelerometer that the kernel drives (IIO), as iio:device0 or its driver's name for it; empty for the "
        "chip"},
       {"pipeline.acc.scale", &acc.scale, Limits::AccScales, "g", "how much it measures either way"},
       {"pipeline.acc.axes", &acc.axes, Allowed::Text(Limits::AxesBytes, IsAxes, AxesForm), "",
        "which of its axes stands upright and reads -1 g at rest, lies across, lies along"},
       {"pipeline.acc.restSecondG", &acc.restSecondG, Limits::RestG, "g",
        "what the second of these reads while the vehicle stands level; a unit that is mounted askew is turned by it"},
       {"pipeline.acc.restThirdG", &acc.restThirdG, Limits::RestG, "g", "the same of the third"},
       {"pipeline.acc.optional", &acc.optional, {}, "", Optional},
       {"pipeline.otherEnabled", &pipeline.otherEnabled, {}, "", "record processor load and temperature"},
       {"pipeline.other.rate", &pipeline.other.rate, Limits::OtherRate, "samples/s",
        "what is stated of them; they are taken once a second"},
       {"pipeline.restartAfterSeconds", &pipeline.restartAfterSeconds, Limits::RestartAfterSeconds, "s",
        "a camera or microphone silent for so long is started anew; 0 for never"},
       {"pipeline.restartUnitAfterMinutes", &pipeline.restartUnitAfterMinutes, Limits::RestartUnitAfterMinutes, "min",
        "a source missing for so long, unless it is optional, restarts the unit; 0 for never"}});
}

void AddEvents(Fields& fields, EventSettings& events) {
  fields.insert(fields.end(), {{"events.startSeconds", &events.startSeconds, Limits::StartSeconds, "s",
                                "start of an event's window, relative to the event"},
                               {"events.durationSeconds", &events.durationSeconds, Limits::DurationSeconds, "s",
                                "length of the window"},
                               {"events.withPreview", &events.withPreview, {}, "", "make a preview clip and stills"},
                               {"events.queueLength", &events.queueLength, Limits::QueueLength, "events",
                                "requests that are accepted while two events are under way"}});
}

void AddStorage(Fields& fields, StorageSettings& storage) {
  fields.insert(
      fields.end(),
      {{"storage.eventsDir", &storage.eventsDir, Allowed::Directory(), "", "finished events, a directory each"},
       {"storage.workDir", &storage.workDir, Allowed::Directory(), "", "files of events that are being collected"},
       {"storage.backupDir", &storage.backupDir, Allowed::Directory(), "", "what is saved when power fails"},
       {"storage.restoreDir", &storage.restoreDir, Allowed::Directory(), "",
        "where the next start finishes what was saved"},
       {"storage.copyAhead", &storage.copyAhead, {}, "", "copy running events to backupDir as they grow"},
       {"storage.copyAheadMBps", &storage.copyAheadMBps, Limits::CopyAheadMBps, "MB/s",
        "at most so fast; above what an event takes, below what the disk writes"},
       {"storage.maxBytes", &storage.maxBytes, Limits::StorageBytes, "bytes",
        "what all events may take together before the oldest go; 0 for no limit"},
       {"storage.maxEvents", &storage.maxEvents, Limits::MaxEvents, "events",
        "how many events are kept; 0 for no limit"},
       {"storage.minFreeBytes", &storage.minFreeBytes, Limits::StorageBytes, "bytes",
        "what events leave free on their file system"},
       {"storage.pages",
        &storage.pages,
        {},
        "",
        "put a page (index.html) into each event's directory, and a list of all beside them"},
       {"storage.keyFile", &storage.keyFile, Limits::OptionalPathBytes, "",
        "the key that events are signed with (PEM), made when there is none; empty: `identity.pem` beside the "
        "events"},
       {"storage.viewersGroup", &storage.viewersGroup, Allowed::Text(Limits::GroupBytes, IsGroupName, GroupForm), "",
        "whose members may read the events; empty: the recorder's own"}});
}

void AddTriggers(Fields& fields, TriggerSettings& triggers) {
  auto& [acceleration, lowSpeed] = triggers;
  fields.insert(
      fields.end(),
      {{"triggers.acceleration.enabled", &acceleration.enabled, {}, "", "a hit makes an event"},
       {"triggers.acceleration.thresholdG", &acceleration.thresholdG, Limits::ThresholdG, "g", "how hard"},
       {"triggers.acceleration.holdMs", &acceleration.holdMs, Limits::HoldMs, "ms", "for how long"},
       {"triggers.acceleration.rearmSeconds", &acceleration.rearmSeconds, Limits::RearmSeconds, "s",
        "from one such event to the next"},
       {"triggers.lowSpeed.enabled", &lowSpeed.enabled, {}, "", "no such event in a vehicle that hardly moves"},
       {"triggers.lowSpeed.minSpeedKnots", &lowSpeed.minSpeedKnots, Limits::SpeedKnots, "knots", "below this speed"}});
}

}  // namespace

std::vector<Field> DescribeFields(Settings& settings) {
  Fields fields;
  auto& pipeline = settings.pipeline;
  AddCamera(fields, "pipeline.camera0", pipeline.camera0Enabled, pipeline.camera0, 0, settings.cameraNames[0]);
  AddCamera(fields, "pipeline.camera1", pipeline.camera1Enabled, pipeline.camera1, 1, settings.cameraNames[1]);
  AddSensors(fields, pipeline);
  AddEvents(fields, settings.events);
  AddStorage(fields, settings.storage);
  AddTriggers(fields, settings.triggers);
  fields.emplace_back("control.socket", &settings.control.socket, Limits::SocketPathBytes, "",
                      "path of the Unix socket that takes commands");
  fields.emplace_back("control.group", &settings.control.group,
                      Allowed::Text(Limits::GroupBytes, IsGroupName, GroupForm), "",
                      "whose members may command, beside the recorder's own user and root; empty: nobody else");
  fields.emplace_back("uploadStatusFile", &settings.uploadStatusFile, Limits::OptionalPathBytes, "",
                      "what tavi-upload says of itself, shown in the status; empty: nothing is shown");
  fields.emplace_back("simulate", &settings.simulate, Allowed(), "", "a simulated car in place of the devices");
  fields.emplace_back("temperatureZone", &settings.temperatureZone, Limits::PathBytes, "",
                      "the kernel's file with the unit's temperature in thousandths of a degree Celsius");
  fields.emplace_back("logFile", &settings.logFile, Limits::OptionalPathBytes, "",
                      "append the log to this file, too; empty for none");
  fields.emplace_back("logFileMaxBytes", &settings.logFileMaxBytes, Limits::LogFileBytes, "bytes",
                      "a log file of this size is put aside, and a new one begun; 0 for never");
  fields.emplace_back("logFileCount", &settings.logFileCount, Limits::LogFileCount, "files",
                      "how many that were put aside are kept");
  return fields;
}

}  // namespace Tavi::Recorder
