// The collector of one ring: writes the stored entries of an event's window into one file.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "Kbase/Pipeline/IPipelineElement.h"
#include "Tavi/PipelineCollect/CollectBase.h"
#include "Tavi/PipelineCollect/CollectFile.h"
#include "Tavi/PipelineCollect/RingReader.h"

namespace Tavi::PipelineCollect {

/// Writes one stored entry for each new entry that arrives in the ring, from the start position on, until the window is
/// written; a window of d seconds is finished about d seconds after the start. Subclasses say what an entry looks like
/// in the file. When the ring's element is taken away meanwhile, or its source falls silent (see SilenceLimit), what
/// the window has so far is written and the file closed: one source that has failed does not hold up the event.
class PipelineCollect : public CollectBase {
 public:
  /// After how long without a new entry a source counts as silent: five intervals, and no less than this.
  static constexpr std::chrono::milliseconds SilenceLimit{3000};
  /// The same for a covered window, which outlasts a stall of four seconds at its very end, too.
  static constexpr std::chrono::milliseconds CoveredSilenceLimit{5000};

  /// `element` is borrowed (see Bind), may be null: then nothing is ever collected.
  PipelineCollect(Kbase::Pipeline::IPipelineElement* element, PipelineCollectType type,
                  std::string threadName = "COLLECT");
  ~PipelineCollect() override;

  void Init(PipelineCollectConfig& config) override;
  void Reset() override;
  unsigned int GetTotalSecondsCollected() override { return m_secondsCollected; }
  void CopyTo(CollectBase* other) override;
  void Collect() override;
  void Report(PipelineCollectOutput& output) const override;

  /// Called once before the first entry; false ends the collect.
  virtual bool WriteHeader(FILE* file);
  /// Writes one entry; false (not an entry of this stream, or the file takes no more) ends the collect.
  virtual bool Write(FILE* file, Kbase::Pipeline::IPipelineCbElement* entry);
  /// What stands beside an entry's time in the companion: words, no line end. Called once for each entry that was
  /// written, where there is a companion.
  virtual std::string Annotate(const Kbase::Pipeline::IPipelineCbElement* entry) const;
  /// Called once behind the last entry, also when the collect was stopped.
  virtual bool WriteFooter(FILE* file);

  /// Reads `element` from now on without owning it: once its owner has let it go it is not touched any more.
  void Bind(const std::shared_ptr<Kbase::Pipeline::IPipelineElement>& element);
  /// The ring with a share in its life for as long as the result is held; null when it is gone.
  [[nodiscard]] std::shared_ptr<Kbase::Pipeline::IPipelineElement> GetRing() const;

  /// Ring position of the window's first entry, set between Init and the thread's start.
  void SetStartPos(unsigned int pos) { SetStart({pos, {}, false}); }
  [[nodiscard]] unsigned int GetStartPos() const { return m_start.pos; }
  void SetStart(const RingStart& start) { m_start = start; }
  /// The window's entries so far, `fps` a second, held since the moment of the event; takes the place of a start
  /// position. They are written also when the ring itself is gone.
  void SetHeld(RingReader held, float fps) {
    m_held = std::move(held);
    m_fps = fps;
  }
  /// Presentation time stamp in nanoseconds of the first entry that the last collect wrote. Empty when it wrote none,
  /// or the entry had no time stamp. Set once the collect has ended.
  [[nodiscard]] std::optional<std::uint64_t> GetFirstTimestamp() const { return m_window.firstTimestampNs; }
  /// What the last collect wrote; no entries when that was nothing. Set once the collect has ended.
  [[nodiscard]] const CollectedWindow& GetWindow() const { return m_window; }

  /// Presentation time stamp in nanoseconds of the entry at `pos`. False, and `timestampNs` untouched, when there is no
  /// such entry or it has none.
  static bool GetPipelineTimestamp(const Kbase::Pipeline::IPipelineElement* element, int pos,
                                   std::uint64_t& timestampNs);
  bool GetPipelineTimestamp(int pos, std::uint64_t& timestampNs) const;

  /// Finds the entry of this ring that lies in time between the entries `refPos - 1` and `refPos` of `reference`,
  /// searching from `frames` entries back. Ends within ring-size steps: where no entry lies between the two, or they
  /// lie outside this ring, `pos` is the nearest entry. False without a reference or without time stamps to compare.
  bool SyncWithPipeline(const Kbase::Pipeline::IPipelineElement* reference, int refPos, int frames, unsigned int& pos);

 protected:
  /// Entries per second of the ring, as of the last Collect.
  [[nodiscard]] float GetCollectedFps() const { return m_fps; }

 private:
  class WindowRun;

  void Finish(CollectFile& file);

  Kbase::Pipeline::IPipelineElement* m_element;
  RingStart m_start;
  std::optional<RingReader> m_held;
  unsigned int m_secondsCollected = 0;
  CollectedWindow m_window;
  std::chrono::steady_clock::time_point m_armedAt;
  float m_fps = 0.0F;
  /// Set by Bind: m_element is then only touched while this one can be locked.
  std::weak_ptr<Kbase::Pipeline::IPipelineElement> m_life;
  bool m_bound = false;
};

}  // namespace Tavi::PipelineCollect
