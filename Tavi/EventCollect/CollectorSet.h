// The collectors of an event, and what is done to all of them.
#pragma once

#include <map>
#include <memory>

#include "Tavi/EventCollect/HeldWindow.h"
#include "Tavi/EventCollect/StartSync.h"
#include "Tavi/PipelineCollect/CollectBase.h"
#include "Tavi/PipelineCollect/PipelineCollectTypes.h"

namespace Tavi::PipelineCollect {

using CollectorMap = std::map<PipelineCollectType, std::unique_ptr<CollectBase>>;

/// One collector a stream, by type. Owns them; the order of the types is the order of everything.
///
/// A working set reads the pipeline manager's rings; a set of twins has the same collectors without rings, and takes
/// over what finished ones have collected, so that these can be armed for the next event. What is asked of running
/// collectors (RequestStop, RequestSave, Running) is thread-safe, everything else belongs to whoever owns the set.
class CollectorSet {
 public:
  enum class Kind { Working, Twins };

  /// A collector for each source that the pipeline manager has now. `config` is borrowed.
  CollectorSet(const PipelineCollectManagerConfig& config, Kind kind);
  ~CollectorSet();
  CollectorSet(const CollectorSet&) = delete;
  CollectorSet& operator=(const CollectorSet&) = delete;

  [[nodiscard]] const CollectorMap& GetMap() const { return m_map; }
  /// Null when there is none of that type.
  [[nodiscard]] CollectBase* Get(PipelineCollectType type) const;
  static CollectBase* Get(const CollectorMap& collectors, PipelineCollectType type);
  /// The collector as what it is; null when there is none, or its thread hangs in its disk.
  template <class Collector>
  static Collector* GetFinished(const CollectorMap& collectors, PipelineCollectType type) {
    CollectBase* collector = Get(collectors, type);
    return collector != nullptr && !collector->IsRunning() ? dynamic_cast<Collector*>(collector) : nullptr;
  }

  /// Takes the rings as the pipeline manager has them now. False when it has none of them any more.
  bool Bind();
  /// The rings that the streams' collectors read, without those that are gone.
  [[nodiscard]] Rings GetRings() const;
  /// The same of what the pipeline manager has now, whatever the collectors are bound to. Thread-safe.
  static Rings ShareRings(const PipelineCollectManagerConfig& config);
  /// Arms every collector that the request wants.
  void Arm(const PipelineCollectInput& input);
  void SetStarts(const Starts& starts);
  /// Hands the streams of a window that was held over to their collectors.
  void SetHeld(HeldWindow& held);
  /// Starts the thread of every armed collector.
  void Start();
  /// True while a collector's thread has been started and has not ended.
  [[nodiscard]] bool Running() const;
  /// Asks every collector to finish its file early; with `abort` its thread is cancelled, too. Waits for nothing.
  void RequestStop(bool abort);
  /// Asks every running collector to write and sync what the rings hold of the window, and to end.
  void RequestSave();
  /// Logs the collectors that still run, with what that means.
  void LogHanging(const char* what) const;
  /// True while nothing but silent sources is waited for.
  [[nodiscard]] bool WaitsForSilentOnly() const;
  void EndInSilence();
  void CopyTo(const CollectorSet& twins) const;
  /// Back to idle; a collector that hangs in its disk stays as it is.
  void Reset();
  void DeleteAll();

 private:
  void CreatePreview(Kind kind);
  void BindPreview();

  const PipelineCollectManagerConfig& m_config;
  CollectorMap m_map;
};

}  // namespace Tavi::PipelineCollect
