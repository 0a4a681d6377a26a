// The settings of tavi-upload: where events are, where they go, how hard it tries.
#include "Fleet/Upload/UploadSettings.h"

#include <fmt/format.h>

#include <array>
#include <string_view>
#include <utility>
#include <vector>

#include "SettingsFile/SettingsFile.h"

namespace Tavi::Upload {
namespace {

using SettingsFile::Allowed;
using SettingsFile::Field;
using SettingsFile::OptionalPathBytes;
using SettingsFile::PathBytes;
using SettingsFile::Range;

constexpr std::array<std::string_view, 3> MeteredWords{"auto", "yes", "no"};
constexpr std::array<std::string_view, 3> StreamWords{"unmetered", "always", "never"};
/// Up to 10 Gbit/s.
constexpr Range<int> Bandwidth{0, 1'250'000};
constexpr Range<int> ReadBack{0, 1'000'000};
constexpr Range<int> LookSeconds{1, 3600};
/// Up to a day.
constexpr Range<double> RetrySeconds{0.1, 86400.0};
constexpr Range<int> Attempts{1, 1000};
constexpr Range<int> StallSeconds{5, 3600};

constexpr std::string_view RemoteForm = "a remote of rclone's with a path, as fleet:bucket/unit-17, or a directory";

/// A name with a colon, or an absolute path: a relative one would be whose working directory?
bool IsRemote(const std::string& text) {
  if (text.empty()) return true;
  return text.front() != '-' && (text.front() == '/' || text.find(':') != std::string::npos);
}

void AddPlaces(std::vector<Field>& fields, UploadSettings& s) {
  fields.insert(
      fields.end(),
      {{"eventsDir", &s.eventsDir, OptionalPathBytes, "",
        "the recorder's events; empty: the recorder is asked at its control socket"},
       {"controlSocket", &s.controlSocket, SettingsFile::SocketPathBytes, "", "the recorder's control socket"},
       {"remote", &s.remote, Allowed::Text(OptionalPathBytes, IsRemote, RemoteForm), "",
        "where events go: a remote of rclone's and a path in it that no other unit has; must be given"},
       {"rcloneConfig", &s.rcloneConfig, OptionalPathBytes, "",
        "rclone's configuration, with the credentials; empty: none is read"},
       {"rclone", &s.rclone, PathBytes, "", "the program"},
       {"stateDir", &s.stateDir, Allowed::Directory(), "", "what is remembered from one start to the next"},
       {"statusFile", &s.statusFile, OptionalPathBytes, "",
        "what the recorder's status shows of this; empty: not written"},
       {"metricsFile", &s.metricsFile, OptionalPathBytes, "",
        "metrics for node_exporter's textfile collector, a name that ends with .prom; empty: not written"}});
}

void AddManner(std::vector<Field>& fields, UploadSettings& s) {
  fields.insert(
      fields.end(),
      {{"metered", &s.metered, MeteredWords, "",
        "whether the network costs by volume; auto: what NetworkManager says, and no where it says nothing"},
       {"sendStreams", &s.sendStreams, StreamWords, "", "when cameras' raw streams and their times are sent"},
       {"bandwidthKiBps", &s.bandwidthKiBps, Bandwidth, "KiB/s", "at most so fast; 0 for no limit"},
       {"readBackMiB", &s.readBackMiB, ReadBack, "MiB",
        "how much of an event may be read back from a far side that tells no hashes"},
       {"deleteAfter",
        &s.deleteAfter,
        {},
        "",
        "have the recorder remove an event that is whole on the far side; never a protected one"},
       {"lookSeconds", &s.lookSeconds, LookSeconds, "s", "from one look for new events to the next"},
       {"retryFirstSeconds", &s.retryFirstSeconds, RetrySeconds, "s", "pause after a failure; doubled each time"},
       {"retryMaxSeconds", &s.retryMaxSeconds, RetrySeconds, "s", "the longest such pause"},
       {"attempts", &s.attempts, Attempts, "attempts",
        "after so many failures an event stands behind the others; `once` leaves it"},
       {"stallSeconds", &s.stallSeconds, StallSeconds, "s", "a far side that is silent for so long has failed"}});
}

std::vector<Field> DescribeFields(UploadSettings& settings) {
  std::vector<Field> fields;
  AddPlaces(fields, settings);
  AddManner(fields, settings);
  return fields;
}

}  // namespace

bool LoadSettings(const std::string& path, UploadSettings& settings, std::string& problem) {
  UploadSettings loaded;
  if (!SettingsFile::LoadFields(path, DescribeFields(loaded), problem)) return false;
  settings = std::move(loaded);
  return true;
}

std::string FormatSettings(const UploadSettings& settings) {
  UploadSettings copy = settings;
  return SettingsFile::FormatFields(DescribeFields(copy));
}

std::string CheckSettings(const UploadSettings& settings) {
  UploadSettings copy = settings;
  std::string problem = SettingsFile::CheckFields(DescribeFields(copy));
  if (!problem.empty()) return problem;
  if (settings.remote.empty()) return fmt::format("field remote: it is empty, {} is right", RemoteForm);
  if (settings.retryFirstSeconds > settings.retryMaxSeconds) {
    return fmt::format("field retryFirstSeconds: {} is more than the {} of retryMaxSeconds", settings.retryFirstSeconds,
                       settings.retryMaxSeconds);
  }
  return {};
}

std::string FormatFieldTable() {
  UploadSettings defaults;
  return SettingsFile::FormatFieldTable(DescribeFields(defaults));
}

}  // namespace Tavi::Upload
