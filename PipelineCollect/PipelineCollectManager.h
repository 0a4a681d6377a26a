// Turns a collect request into a finished set of files.
#pragma once

#include <atomic>
#include <map>
#include <memory>

#include "Kbase/Pipeline/IPipelineElement.h"
#include "Pipeline/PipelineType.h"
#include "PipelineCollect/CollectBase.h"
#include "PipelineCollect/PipelineCollect.h"
#include "PipelineCollect/PipelineCollectTypes.h"

namespace Tavi::Audio {
class AudioPipelineCollect;
}
namespace Tavi::Video {
class VideoPipelineCollect;
}

namespace Tavi::PipelineCollect {

/// Arms one collector per stream, aligns their starts in the rings, runs them side by side under a time limit, muxes
/// and reports what they wrote.
///
/// One Collect at a time, on the caller's thread; a second one is refused. CancelCollect may be called from any thread
/// meanwhile. Every collector has a thread of its own. The pipeline manager may stop, and start again, at any time: a
/// collect under way ends with what it has, one without acquisition is refused.
class PipelineCollectManager {
 public:
  using CollectorMap = std::map<PipelineCollectType, std::unique_ptr<CollectBase>>;

  /// Creates a collector for each source that the pipeline manager has now, and the backup directory.
  explicit PipelineCollectManager(PipelineCollectManagerConfig& config);
  ~PipelineCollectManager();

  /// The whole collect; returns when the event's files are complete or the limit has passed. Files that were written by
  /// then are in `output`, also after a cancel. False when nothing was started: a collect runs already, there is no
  /// acquisition, or the output directory cannot be made (each with a log line).
  bool Collect(PipelineCollectInput& input, PipelineCollectOutput& output);
  /// Ends the running collect early, each file with what it has; with `abort` also waits, bounded, for the threads.
  void CancelCollect(bool abort);

  /// Arms every collector for `input`.
  void Init(PipelineCollectInput& input);
  /// Sets every armed collector's start position, all aligned to camera 1 by time stamp.
  void Sync(PipelineCollectInput& input);
  /// Starts the thread of every armed collector.
  void Start();
  /// True while a collector's thread has been started and has not ended.
  [[nodiscard]] bool Running() const;
  void Reset();
  /// Deletes every collector's file.
  void DeleteAll();
  void ClearCache();
  /// Turns the cameras' streams into MP4 files, with the event's sound when there is any.
  void Mux();
  /// Each camera's sound is placed by the time stamps of the two streams' first entries: the streams start together
  /// only as far as key frames allow. Null for a collector that there is not.
  static void Mux(Video::VideoPipelineCollect* camera1, Video::VideoPipelineCollect* camera0,
                  Audio::AudioPipelineCollect* audio);
  /// The working collector of that type, null when there is none.
  CollectBase* GetCollectElement(PipelineCollectType type) const;
  static CollectBase* GetCollectElement(const CollectorMap& collectors, PipelineCollectType type);
  /// Lists the files of all collectors that have one.
  void BuildOutput(PipelineCollectOutput& output) const;
  static void BuildOutput(const CollectorMap& collectors, PipelineCollectOutput& output);

  PipelineCollectManager(const PipelineCollectManager&) = delete;
  PipelineCollectManager& operator=(const PipelineCollectManager&) = delete;

 private:
  void CreateCollectors();
  template <class Collector, class... Arguments>
  void Create(PipelineCollectType type, Pipeline::PipelineType source, Arguments... arguments);
  bool BindElements();
  bool Prepare(PipelineCollectInput& input);
  void WaitForCollectors();
  void EndCancelledStart();
  void LogFreeSpace(const char* when) const;
  PipelineCollect* GetStream(PipelineCollectType type) const;
  void SyncCamera0ToCamera1(PipelineCollect& camera0, const PipelineCollect& camera1, int seconds);
  void SyncSensors(int seconds);
  void SyncAudio(const PipelineCollect* camera, int seconds);

  const PipelineCollectManagerConfig m_config;
  Kbase::Util::IClock& m_clock;
  CollectorMap m_collectors;
  std::atomic<bool> m_collecting{false};
  std::atomic<bool> m_cancelled{false};
};

}  // namespace Tavi::PipelineCollect
