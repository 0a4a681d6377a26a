// What the recorder is told on its command line.
#pragma once

#include <iosfwd>
#include <optional>
#include <string>

#include "Tavi/Pipeline/PipelineConfig.h"

namespace Tavi::Recorder {

struct Options {
  Pipeline::PipelineConfig pipeline;
  /// A simulated car in place of the devices.
  bool simulate = false;
  /// Seconds from the start of the acquisition, or the end of the event before, to an event.
  double collectAfterSeconds = 16.0;
  /// Start of an event's window relative to the event in seconds, negative or 0.
  int startSeconds = -15;
  int durationSeconds = 30;
  int eventCount = 1;
  /// Mux behind the next event's waiting.
  bool async = false;
  /// Only tell what is connected.
  bool listDevices = false;
  /// Make the side-by-side clip and its still, too.
  bool withPreview = false;
  /// Collect every event a second time, beside the first.
  bool secondManager = false;
  std::string outputDir;
  /// Where "power_failure/" and "power_restore/" are; empty stands for `outputDir`.
  std::string backupDir;
  /// One JSON object an event on standard output instead of a table.
  bool json = false;
  /// Also append the log to this file.
  std::string logFile;
};

/// Reads the command line into `options`. Empty when the recorder is to run; otherwise the exit status with which it is
/// to end: 0 after --help or --version, 2 after one line on `err` that names what is wrong and what would be right.
std::optional<int> ParseOptions(int argc, const char* const* argv, Options& options, std::ostream& out,
                                std::ostream& err);

}  // namespace Tavi::Recorder
