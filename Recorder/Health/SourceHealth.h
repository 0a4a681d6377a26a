// What is known of one source's health.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "Tavi/Pipeline/PipelineType.h"

namespace Tavi::Recorder {

enum class SourceState {
  /// The acquisition is taken away.
  Stopped,
  /// It is there, and this source has not delivered yet.
  Starting,
  Running,
  /// It has delivered, and then nothing for five periods, half a second at least.
  Silent,
  /// It cannot be opened, has failed, or has not delivered for ten seconds after the start.
  Missing,
};

/// One source at one moment. Counts are the process's: they go on over restarts of the acquisition.
struct SourceHealth {
  Pipeline::PipelineType type = Pipeline::PipelineType::Camera0;
  SourceState state = SourceState::Stopped;
  /// Of cameras and microphone: what is known to be wrong; empty when nothing is.
  std::string problem;
  /// Entries delivered. What came between the last sample and a restart is not in it.
  std::uint64_t entries = 0;
  /// Entries per second over the last five samples, 0 until two have been taken.
  double rate = 0.0;
  double configuredRate = 0.0;
  /// Of the newest entry, by its own clock; empty when there is none.
  std::optional<std::chrono::milliseconds> newestAge;
  /// Periods of the configured rate that went by without an entry while the source delivered before and after. It says
  /// how much is missing, not whose fault it is: a camera that exposes longer in the dark misses some, too. A gap is
  /// counted when it has ended, and one sample later, because what is late may still come.
  std::uint64_t missed = 0;
  /// How often the source began anew: another ring, or ids that start again.
  std::uint64_t restarts = 0;
  /// Of cameras and microphone: how often they were started anew because they were silent. Their rings go on.
  std::optional<std::uint64_t> revivals;
  /// Of the accelerometer alone: transfers that failed on its bus, and how often its FIFO ran over.
  std::optional<std::uint64_t> busErrors;
  std::optional<std::uint64_t> overflows;
  /// What people call a camera; empty for one without a name, and for everything else.
  std::string name = {};
};

/// In the order of their keys.
inline constexpr std::array AllSources{Pipeline::PipelineType::Camera0,  Pipeline::PipelineType::Camera1,
                                       Pipeline::PipelineType::Audio,    Pipeline::PipelineType::Gps,
                                       Pipeline::PipelineType::Acc,      Pipeline::PipelineType::Other,
                                       Pipeline::PipelineType::Preview0, Pipeline::PipelineType::Preview1};

/// "camera0" and so on, after the settings: the camera whose files are "video1_".
[[nodiscard]] const char* GetSourceName(Pipeline::PipelineType type);
/// "stopped", "starting", "running", "silent", "missing".
[[nodiscard]] const char* GetStateName(SourceState state);

}  // namespace Tavi::Recorder
