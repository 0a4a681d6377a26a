// What tavi-ctl is told on its command line.
#pragma once

#include <chrono>
#include <iosfwd>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "Control/Protocol.h"

namespace Tavi::Ctl {

/// Exit statuses beside 0.
inline constexpr int FailureExitStatus = 1;
inline constexpr int UsageExitStatus = 2;
inline constexpr int NoRecorderExitStatus = 3;
/// The event is collected and waits for room on the disk.
inline constexpr int WaitingExitStatus = 4;
/// The event is saved, and not all that was asked for is there.
inline constexpr int PartialExitStatus = 5;

/// Commands that are carried out here, from the directory of the events.
namespace LocalCommand {
inline constexpr const char* Show = "show";
inline constexpr const char* Export = "export";
}  // namespace LocalCommand

/// Where exported files go, and which; all formats when none is named.
struct ExportOptions {
  std::string outputDir;
  bool gpx = false;
  bool csv = false;
  bool geoJson = false;
  bool subtitles = false;
  /// The event's own directory, as it is.
  bool files = false;
};

struct CtlOptions {
  std::string socketPath = Recorder::DefaultControlSocket;
  /// The reply as it came instead of text for people.
  bool json = false;
  /// For the reply; without a value it is waited for as long as it takes.
  std::optional<double> timeoutSeconds;
  /// For a recorder that is about to start.
  double connectSeconds = 10.0;
  std::string command;
  /// What is sent; null for what is carried out here, and without the event for one that is still to be found.
  nlohmann::ordered_json request;
  /// As a person has given them.
  std::vector<std::string> events;
  /// Of "events", "show" and "export"; empty for the recorder's.
  std::string eventsDir;
  ExportOptions exported;
  /// Remove without asking.
  bool isSure = false;
};

/// Reads the command line into `options`. Empty when there is something to do; otherwise the exit status with which
/// the program is to end: 0 after --help, 2 after one line on `err` that names what is wrong and what would be right.
std::optional<int> ParseOptions(int argc, const char* const* argv, CtlOptions& options, std::ostream& out,
                                std::ostream& err);

std::optional<std::chrono::milliseconds> GetTimeout(const CtlOptions& options);
/// No longer than for the reply.
std::chrono::milliseconds GetConnectTime(const CtlOptions& options);

}  // namespace Tavi::Ctl
