// The settings of tavi-upload: where events are, where they go, how hard it tries.
#pragma once

#include <cstdint>
#include <string>

namespace Tavi::Upload {

/// Plain values, copied by whoever receives them. docs/upload.md tells of each field. Directories end with "/".
struct UploadSettings {
  /// The recorder's events; empty: the running recorder is asked.
  std::string eventsDir = {};
  std::string controlSocket = "/run/tavi/control.sock";
  /// A path of rclone's: a remote and what is in it, or a directory.
  std::string remote = {};
  /// rclone's own configuration, with the credentials; empty: none is read.
  std::string rcloneConfig = "/etc/tavi/rclone.conf";
  std::string rclone = "rclone";
  std::string stateDir = "/var/lib/tavi-upload/";
  /// Empty: not written.
  std::string statusFile = "/run/tavi-upload/status.json";
  std::string metricsFile = {};
  /// auto, yes or no.
  std::string metered = "auto";
  /// unmetered, always or never.
  std::string sendStreams = "unmetered";
  /// In 1,024 bytes a second; 0: no limit.
  int bandwidthKiBps = 0;
  /// Of one event, in MiB: what may be read back from a far side that tells no hashes.
  int readBackMiB = 1024;
  bool deleteAfter = false;
  int lookSeconds = 5;
  double retryFirstSeconds = 5.0;
  double retryMaxSeconds = 600.0;
  int attempts = 5;
  int stallSeconds = 60;
};

/// Reads a JSON file; what it does not name has its default. False, with one line in `problem`, when anything in it is
/// wrong; `settings` is untouched then. Reentrant, as everything here.
[[nodiscard]] bool LoadSettings(const std::string& path, UploadSettings& settings, std::string& problem);

/// All fields as a file that LoadSettings reads back to the same settings.
std::string FormatSettings(const UploadSettings& settings);

/// What does not fit together, in one line; empty when all is well. Looks at values only.
std::string CheckSettings(const UploadSettings& settings);

/// The table of docs/upload.md.
std::string FormatFieldTable();

}  // namespace Tavi::Upload
