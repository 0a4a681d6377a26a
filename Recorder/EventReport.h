// What the recorder says about one event: a JSON line for programs, a table for people.
#pragma once

#include <string>

#include "Tavi/PipelineCollect/PipelineCollectTypes.h"
#include "Tavi/RecoveryCollect/RecoveryCollectTypes.h"

namespace Tavi::Recorder {

struct EventReport {
  /// Counted from 1.
  int number = 0;
  /// Collected by the second manager.
  bool second = false;
  /// From the request to the last file, muxing included.
  double collectSeconds = 0.0;
  /// Power has failed meanwhile: without files here, the event was saved for the next start.
  bool powerFailed = false;
  PipelineCollect::PipelineCollectOutput output;
};

/// {"event":1,"manager":"first","time":...,"collectSeconds":...,"powerFailed":false,"maxSpeed":...,"maxG":...,
/// "previewStill":null,"files":{"VideoCamera1":"...",...}} without a line end; `time` is in seconds since the epoch,
/// `maxSpeed` in knots (-1 without a valid position), `maxG` in g.
std::string FormatJson(const EventReport& report);
/// {"recovered":"event_20261121T071500Z_12","time":...,"seconds":12,"files":{...}}.
std::string FormatJson(const RecoveryCollect::RecoveredEvent& event);

/// A heading, one line a file (what it holds, its duration and size, its path), and the peaks.
std::string FormatTable(const EventReport& report);
std::string FormatTable(const RecoveryCollect::RecoveredEvent& event);

}  // namespace Tavi::Recorder
