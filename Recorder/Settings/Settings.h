// The recorder's settings: what can be chosen, reading it from a file, writing it down, checking it.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "Kbase/Util/TemperatureMonitor.h"
#include "Tavi/Pipeline/PipelineConfig.h"

namespace Tavi::Recorder {

/// What an event is when its request says nothing else.
struct EventSettings {
  /// Start of the window in seconds relative to the event, negative or 0, and its length in seconds.
  int startSeconds = -15;
  int durationSeconds = 30;
  bool withPreview = true;
  /// Requests that may wait for a free collect manager.
  int queueLength = 8;
};

/// Where files go. Directories end with "/"; LoadSettings appends it.
struct StorageSettings {
  /// One directory an event.
  std::string eventsDir = "/var/lib/tavi/events/";
  /// Files of an event that is being collected.
  std::string workDir = "/mnt/ramdisk/";
  /// Where the files of a running event are saved when power fails, and where the next start finishes them.
  std::string backupDir = "/root/power_failure/";
  std::string restoreDir = "/root/power_restore/";
  /// A running event is copied to backupDir while it is collected, at no more than so many million bytes a second, so
  /// that a slow disk has little left to write when power fails.
  bool copyAhead = true;
  double copyAheadMBps = 8.0;
  /// The oldest events make room above these; 0 sets no limit.
  std::uint64_t maxBytes = 0;
  int maxEvents = 0;
  /// Free bytes that are left to the rest of the file system.
  std::uint64_t minFreeBytes = std::uint64_t{256} << 20;
  /// A page in each event's directory, and a list of all events beside them.
  bool pages = true;
  /// The key that events are signed with (PEM); made when there is none. Empty: identity.pem beside the events'
  /// directory.
  std::string keyFile = {};
  /// The group whose members may read the events. Empty: the process's own.
  std::string viewersGroup = {};
};

/// An event of its own when the vehicle is hit.
struct AccelerationTrigger {
  bool enabled = false;
  double thresholdG = 0.5;
  /// How long the threshold has to be exceeded, in milliseconds.
  int holdMs = 100;
  /// Seconds from one such event to the next.
  int rearmSeconds = 30;
};

/// No acceleration event below a speed.
struct LowSpeedGuard {
  bool enabled = false;
  double minSpeedKnots = 3.0;
};

struct TriggerSettings {
  AccelerationTrigger acceleration;
  LowSpeedGuard lowSpeed;
};

struct ControlSettings {
  /// Path of the Unix socket that takes commands.
  std::string socket = "/run/tavi/control.sock";
  /// The group whose members are served, beside the recorder's own user and root. Empty: none.
  std::string group = {};
};

/// The library's defaults, with sources that are started anew when they fall silent or fail, each for itself.
[[nodiscard]] Pipeline::PipelineConfig RestartingPipeline();

/// Plain values, copied by whoever receives them. docs/settings.md tells of each field.
struct Settings {
  Pipeline::PipelineConfig pipeline = RestartingPipeline();
  /// What people call camera 0 and camera 1; empty for one without a name. For people only: acquisition knows numbers.
  std::array<std::string, 2> cameraNames;
  EventSettings events;
  StorageSettings storage;
  TriggerSettings triggers;
  ControlSettings control;
  /// What tavi-upload says of itself; empty for no upload in the status.
  std::string uploadStatusFile = "/run/tavi-upload/status.json";
  /// A simulated car in place of the devices.
  bool simulate = false;
  /// Where the unit's temperature is read.
  std::string temperatureZone = Kbase::Util::TemperatureMonitor::DefaultZone;
  /// Also append the log to this file; empty for none.
  std::string logFile;
  /// A line that would make it larger begins a new one; 0: never. So many old ones are kept.
  std::uint64_t logFileMaxBytes = std::uint64_t{10} << 20;
  int logFileCount = 5;
};

/// Reads a JSON file of at most 1 MiB. What it does not name has its default, whatever `settings` held before. False
/// when anything in it is wrong: `problem` is then one line with file, line and field, and `settings` is untouched.
/// Each field is checked for itself; how they fit together is CheckSettings' matter, since the command line may still
/// change some. Reentrant, as everything here.
[[nodiscard]] bool LoadSettings(const std::string& path, Settings& settings, std::string& problem);

/// All fields as a file that LoadSettings reads back to the same settings.
std::string FormatSettings(const Settings& settings);

/// The first field that is out of its range, or does not fit the others, in one line; empty when all is well. Looks at
/// values only, at no device or directory.
std::string CheckSettings(const Settings& settings);

/// The first field with a group that this machine has not, in one line; empty when all is well. Asks the system, which
/// may block.
std::string CheckGroups(const Settings& settings);

/// The table of docs/settings.md: a Markdown row for each field with unit, default, range and meaning.
std::string FormatFieldTable();

}  // namespace Tavi::Recorder
