// What of an event is not as it was asked for.
#include "Recorder/Service/MissingParts.h"

#include <fmt/format.h>

#include <algorithm>

#include "EventStore/PartName.h"

namespace Tavi::Recorder {
namespace {

using EventStore::MissingPart;
using PipelineCollect::CollectedWindow;
using PipelineCollect::PipelineCollectOutput;
using PipelineCollect::PipelineCollectType;
using PipelineCollect::StreamExtension;

/// What nobody misses: less than a second, and what a source's own interval makes of it.
constexpr double ToleranceSeconds = 1.0;
/// Of the rate that is configured.
constexpr double LeastShare = 0.95;

bool IsStream(PipelineCollectType type) {
  return type <= PipelineCollectType::Other;
}

/// What became of the file of a stream that has a window.
void CheckFile(const std::string& type, const CollectedWindow& window, const std::string* path,
               std::vector<MissingPart>& missing) {
  if (path == nullptr) {
    missing.push_back({type, window.toSeconds - window.fromSeconds, "its file could not be made"});
  } else if (path->ends_with(StreamExtension)) {
    missing.push_back({type, 0.0, "no clip could be made of its stream, which is kept as it is"});
  }
}

/// Seconds relative to the event.
struct Asked {
  double from = 0.0;
  double to = 0.0;
};

void CheckWindow(const std::string& type, const CollectedWindow& window, Asked asked,
                 std::vector<MissingPart>& missing) {
  const double rate = static_cast<double>(window.fps);
  const double tolerance = ToleranceSeconds + (rate > 0.0 ? 1.0 / rate : 0.0);
  if (const double late = window.fromSeconds - asked.from; late > tolerance) {
    missing.push_back({type, late, fmt::format("begins {:.1f} s late: nothing older was in memory", late)});
  }
  if (const double early = asked.to - window.toSeconds; early > tolerance) {
    missing.push_back({type, early, fmt::format("ends {:.1f} s early", early)});
  }
  const double gap = window.longestGapSeconds;
  if (gap > tolerance) {
    missing.push_back(
        {type, gap, fmt::format("nothing came for {:.1f} s from {:+.1f} s on", gap, window.longestGapFromSeconds)});
  }
  const double span = window.toSeconds - window.fromSeconds - (gap > tolerance ? gap : 0.0);
  const double delivered = span > 0.0 ? static_cast<double>(window.entries - 1) / span : rate;
  if (span > tolerance && delivered < LeastShare * rate) {
    missing.push_back({type, span * (1.0 - delivered / rate),
                       fmt::format("{:.1f} of {:.4g} entries a second came", delivered, rate)});
  }
}

}  // namespace

std::vector<MissingPart> FindMissing(const EventOrder& order, const std::set<PipelineCollectType>& expected,
                                     const PipelineCollectOutput& output) {
  const Asked asked{static_cast<double>(-order.beforeSeconds),
                    static_cast<double>(order.durationSeconds - order.beforeSeconds)};
  std::vector<MissingPart> missing;
  for (const auto type : expected) {
    const std::string name = GetPipelineCollectTypeName(type);
    const auto window = output.windows.find(type);
    if (IsStream(type) && window != output.windows.end()) {
      CheckWindow(name, window->second, asked, missing);
      const auto file = output.outputs.find(type);
      CheckFile(name, window->second, file != output.outputs.end() ? &file->second : nullptr, missing);
    } else if (IsStream(type)) {
      missing.push_back({name, static_cast<double>(order.durationSeconds), "its source delivered nothing"});
    } else if (type == PipelineCollectType::Preview && !order.withPreview) {
      continue;
    } else if (!output.outputs.contains(type)) {
      missing.push_back({name, 0.0, "it could not be made"});
    }
  }
  // The second manager has no collector for it.
  if (order.withPreview && !expected.contains(PipelineCollectType::Preview)) {
    missing.push_back({GetPipelineCollectTypeName(PipelineCollectType::Preview), 0.0,
                       "the second collect manager, which was free, makes none"});
  }
  return missing;
}

std::string DescribeMissing(const std::vector<MissingPart>& missing, const EventStore::CameraNames& cameraNames) {
  std::string sentence;
  for (const auto& part : missing) {
    sentence += (sentence.empty() ? "not all that was asked for is there: " : "; ") +
                EventStore::GetPartName(part.type, cameraNames) + ": " + part.reason;
  }
  return sentence;
}

}  // namespace Tavi::Recorder
