// What the recorder says about one event: a JSON line for programs, a table for people.
#pragma once

#include <string>

#include "PipelineCollect/PipelineCollectTypes.h"

namespace Tavi::Recorder {

struct EventReport {
  /// Counted from 1.
  int number = 0;
  /// How long the collect took, muxing included.
  double collectSeconds = 0.0;
  PipelineCollect::PipelineCollectOutput output;
};

/// {"event":1,"time":...,"collectSeconds":...,"maxSpeed":...,"maxG":...,"files":{"VideoCamera1":"...",...}} without a
/// line end; `time` is in seconds since the epoch, `maxSpeed` in knots (-1 without a valid position), `maxG` in g.
std::string FormatJson(const EventReport& report);

/// A heading, one line a file (what it holds, its duration and size, its path), and the peaks.
std::string FormatTable(const EventReport& report);

}  // namespace Tavi::Recorder
