// Turns a collect request into a finished set of files.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Tavi/EventCollect/AcquisitionStop.h"
#include "Tavi/EventCollect/CollectState.h"
#include "Tavi/EventCollect/CollectorSet.h"
#include "Tavi/EventCollect/CopyAheadThread.h"
#include "Tavi/EventCollect/MuxAsync.h"
#include "Tavi/EventCollect/PowerBackup.h"
#include "Tavi/PipelineCollect/PipelineCollectTypes.h"

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
/// One Collect at a time, on the caller's thread; a second one is refused. CancelCollect and PowerFailure may be called
/// from any thread meanwhile. Every collector has a thread of its own. The pipeline manager may stop, and start again,
/// at any time: a collect under way ends with what it has, one without acquisition is refused.
///
/// Destroying it waits for a mux under way and its callback.
class PipelineCollectManager final : public MuxAsyncInterface {
 public:
  using CollectorMap = Tavi::PipelineCollect::CollectorMap;

  /// Creates a collector for each source that the pipeline manager has now, and the backup directory.
  explicit PipelineCollectManager(PipelineCollectManagerConfig& config);
  ~PipelineCollectManager() override;

  /// The whole collect; returns when the event's files are complete or the limit has passed. Files that were written by
  /// then are in `output`, also after a cancel. False when nothing was started: a collect runs already, there is no
  /// acquisition, or the output directory cannot be made (each with a log line).
  bool Collect(PipelineCollectInput& input, PipelineCollectOutput& output);
  /// The same up to the end of the collectors; muxing goes on behind it, and `callback` is told when it is done. While
  /// the mux of the event before still runs, muxes on this thread and calls back before it returns.
  bool CollectAsync(PipelineCollectInput& input, CollectAsyncCallbackInterface* callback, void* userData);
  /// Both of the above: without a callback the result goes to `output`, which may be null.
  bool Collect(PipelineCollectInput& input, PipelineCollectOutput* output, CollectAsyncCallbackInterface* callback,
               void* userData);
  /// Keeps the window of a request that has to wait for its turn from being overwritten: to be called at the moment of
  /// the event and passed on with the request. Waits for nothing. Null without acquisition. Thread-safe.
  [[nodiscard]] std::shared_ptr<HeldWindow> Hold(const PipelineCollectInput& input) const;
  /// Ends the running collect early, each file with what it has; with `abort` also waits, bounded, for the threads.
  void CancelCollect(bool abort);
  /// Power is about to go: what the rings hold of a running event's window is written and synced at once, acquisition
  /// is stopped, and every file is saved in the backup directory, by the thread that collects. An event that is being
  /// muxed behind the caller is saved by that thread when it is done. Without either nothing happens. Returns at once.
  /// Thread-safe.
  void PowerFailure();

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
  void MuxAsync(MuxAsyncParams& params) override;
  /// Lists the files of all collectors that have one.
  void BuildOutput(PipelineCollectOutput& output) const;
  static void BuildOutput(const CollectorMap& collectors, PipelineCollectOutput& output);

  PipelineCollectManager(const PipelineCollectManager&) = delete;
  PipelineCollectManager& operator=(const PipelineCollectManager&) = delete;

 private:
  bool Prepare(PipelineCollectInput& input);
  void WaitForCollectors(const PipelineCollectInput& input);
  void AwaitAborted(std::uint64_t turn) const;
  void EndCancelledStart();
  [[nodiscard]] bool CanMuxAsync() const;
  void HandOver(const PipelineCollectInput& input, CollectAsyncCallbackInterface* callback, void* userData);
  void Deliver(const PipelineCollectInput& input, PipelineCollectOutput& output);
  [[nodiscard]] std::string GetBackupBase(const PipelineCollectInput& input, const char* otherwise) const;
  void SaveAll(const PipelineCollectInput& input);
  void BeginCopyAhead(const PipelineCollectInput& input);
  bool StopAcquisition(Kbase::Util::IClock::Milliseconds limit);
  void EndCollectors();
  void LogSpace(const char* when) const;

  const PipelineCollectManagerConfig m_config;
  Kbase::Util::IClock& m_clock;
  CollectorSet m_collectors;
  /// One twin each, which the mux thread works on while the collectors are armed for the next event.
  CollectorSet m_muxCollectors;
  const PowerBackup m_backup;
  CollectState m_state;
  /// Null where nothing is copied ahead.
  const std::shared_ptr<CopyAheadThread> m_copyAhead;
  /// Of the event that is collected, until it is handed over.
  std::shared_ptr<CopyAhead> m_ahead;
  std::unique_ptr<MuxAsyncThread> m_muxThread;
  /// Null until power has failed.
  std::unique_ptr<AcquisitionStop> m_stop;
};

}  // namespace Tavi::PipelineCollect
