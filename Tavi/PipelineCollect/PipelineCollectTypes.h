// The vocabulary of an event: what a collect file holds, what is asked for, what is delivered.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Kbase/Util/Clock.h"
#include "Tavi/PipelineCollect/CameraType.h"

namespace Tavi::Pipeline {
class PipelineManager;
}

namespace Tavi::PipelineCollect {

/// What one file of an event holds. The numeric order is the order in which collectors are armed, started and reported.
/// Value 0 is camera 1 and value 1 camera 0, and so with the thumbnails: file names and the recovery depend on it.
enum class PipelineCollectType : std::int32_t {
  VideoCamera1 = 0,
  VideoCamera0 = 1,
  Audio = 2,
  Gps = 3,
  Acc = 4,
  Other = 5,
  ThumbnailCamera1 = 6,
  ThumbnailCamera0 = 7,
  Preview = 8,
};

/// The enumerator's own name, as reports show it; empty for any other value.
const char* GetPipelineCollectTypeName(PipelineCollectType type);

class CopyAheadThread;
class HeldWindow;

/// What goes beyond counting entries from the present on. The defaults change nothing.
struct WindowCare {
  /// The moment that the window is relative to; empty: when the collector is armed.
  std::optional<std::chrono::steady_clock::time_point> moment;
  /// Cover the window in time as well as in number: it begins no later than asked for, at a key frame, and goes on
  /// until an entry of its end, and the number of entries that the source's rate makes of it, are written. A source
  /// that falls silent keeps its place until the others have ended.
  bool cover = false;
  /// With `cover`: the end of the window by the request, in seconds behind its start; a stream whose number of entries
  /// is cut short is not cut short in time.
  std::int32_t coverSeconds = 0;
  /// Stored entries that may be written for each new one. With more than one the pace is kept by the clock, so that
  /// what lies behind is written also when nothing new comes.
  std::int32_t pace = 1;
  /// Write each entry's time into a companion beside the file (EntryTimes).
  bool keepTimes = false;
};

/// What one collector is armed with for one event.
struct PipelineCollectConfig {
  /// Where the window starts, in seconds relative to the event; negative means before it. Its absolute value is used.
  std::int32_t startSeconds = -15;
  /// Length of the window in seconds; its absolute value is used.
  std::int32_t durationSeconds = 30;
  /// Directory of the file, with a "/" at its end.
  std::string outputDir;
  WindowCare care = {};
};

/// One collect request.
struct PipelineCollectInput {
  std::int32_t startSeconds = -15;
  std::int32_t durationSeconds = 30;
  bool withPreview = false;
  /// Working directory of this event; created when missing.
  std::string outputDir;
  /// Delete the files instead of reporting them.
  bool discard = false;
  /// `coverSeconds` is the manager's business.
  WindowCare care = {};
  /// The window since its moment, from PipelineCollectManager::Hold; null: what the rings hold when the collect starts.
  std::shared_ptr<HeldWindow> held = {};
  /// What the names of its files begin with when power fails, so that who recovers them knows whose they are. Empty:
  /// "event", "event-cr" by the second manager, and "mux" or "mux-cr" while it is muxed behind the caller.
  std::string name = {};
};

/// Of a camera's file before it is made a clip, and where that could not be done.
inline constexpr std::string_view StreamExtension = ".h264";

/// What a stream's file holds in time.
struct CollectedWindow {
  /// When the first and the last entry were made, in seconds from the moment of the window (WindowCare): negative is
  /// before it.
  double fromSeconds = 0.0;
  double toSeconds = 0.0;
  std::uint64_t entries = 0;
  /// Entries per second as configured.
  float fps = 0.0F;
  /// Presentation time stamps in nanoseconds of the first and the last entry by the source's own clock, which cameras
  /// and microphone share; empty when an entry had none.
  std::optional<std::uint64_t> firstTimestampNs;
  std::optional<std::uint64_t> lastTimestampNs;
  /// Entries that were overwritten in the ring before they could be read.
  std::uint64_t lost = 0;
  /// The longest time between two entries, in seconds, and when it began. 0 with fewer than two.
  double longestGapSeconds = 0.0;
  double longestGapFromSeconds = 0.0;
};

/// The result of one collect, owned by the caller and filled by the manager.
class PipelineCollectOutput {
 public:
  using Map = std::map<PipelineCollectType, std::string>;

  /// Records the file of `type`; one that is recorded already stays as it is.
  void AddOutput(PipelineCollectType type, const std::string& path);
  /// The file of `type`, empty when there is none.
  [[nodiscard]] std::string GetOutputPath(PipelineCollectType type) const;
  void RemoveOutput(PipelineCollectType type);

  /// Highest speed of the window in knots; -1 when no position was collected.
  double maxSpeed = -1.0;
  /// Highest acceleration of the window in g.
  double maxG = 0.0;
  /// When the collect started, seconds since the epoch.
  std::int64_t eventTime = 0;
  /// Path of the preview's JPEG still, empty without a preview.
  std::string previewStill;
  /// Length of the preview clip in seconds.
  std::int32_t previewSeconds = 8;
  /// Full path of each file that holds something.
  Map outputs;
  /// For each of them that was written from a ring.
  std::map<PipelineCollectType, CollectedWindow> windows;
  /// With `copyAheadMBps`: the copies of its files in the backup directory, which the next start finishes. They are
  /// removed, behind the caller, when the last holder lets go: to be held until the files are where they survive a
  /// power cut. Otherwise null.
  std::shared_ptr<void> backup;
};

/// How a collect manager is built.
struct PipelineCollectManagerConfig {
  /// Source of the rings; borrowed, must outlive the manager.
  Pipeline::PipelineManager* pipelineManager = nullptr;
  bool withAudio = true;
  bool previewFlag = true;
  bool withCamera0 = true;
  /// This is the second manager, which works beside the first on the same rings.
  bool cr = false;
  std::int32_t previewParam = 0;
  /// The disk whose free space is logged around each collect.
  std::string workDir = "/mnt/ramdisk/";
  /// Where files are saved when power fails; created with the manager.
  std::string backupDir = "/root/power_failure/";
  /// After how long a collect is aborted; 0 stands for 120 s, 180 s in the second manager.
  std::int32_t limitMs = 0;
  /// What the limit is measured with; borrowed, null stands for the steady clock.
  Kbase::Util::IClock* clock = nullptr;
  /// A stream that cannot be muxed is kept: it is muxed without sound where that helps, else it is delivered as it is,
  /// with its companion beside it. Otherwise it is deleted.
  bool keepStreams = false;
  /// Above 0: while an event is collected, what its files hold is copied to `backupDir` at no more than so many million
  /// bytes a second, so that only the rest has to be written when power fails. An event that is copied ahead is saved
  /// under the time when it began, without its length.
  double copyAheadMBps = 0.0;
  /// What copies ahead for this manager and others at one rate; null stands for one of its own.
  std::shared_ptr<CopyAheadThread> copyAhead = {};
};

}  // namespace Tavi::PipelineCollect
