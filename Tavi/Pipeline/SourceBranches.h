// The branches of cameras and microphone, looked after while the pipeline plays.
#pragma once

#include <gst/gst.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "Kbase/Pipeline/IPipelineElement.h"
#include "Tavi/Pipeline/PipelineConfig.h"
#include "Tavi/Pipeline/PipelineType.h"
#include "Tavi/Pipeline/StallWatch.h"

namespace Tavi::GstUtil {
class BranchRestart;
}

namespace Tavi::Pipeline {

/// Knows which source delivers, which has failed, and for how long each has been missing. Thread-safe, but for
/// LeaveOutMissing, which belongs to whoever starts the pipeline.
class SourceBranches {
 public:
  using Milliseconds = std::chrono::milliseconds;
  using Element = std::shared_ptr<Kbase::Pipeline::IPipelineElement>;
  using Share = std::function<Element(PipelineType)>;

  SourceBranches(const PipelineConfig& config, Share share) : m_config(config), m_share(std::move(share)) {}

  /// From now on a source that has never delivered counts as silent.
  void NoteStart() { m_startedAt = std::chrono::steady_clock::now(); }
  /// The branch of a camera or the microphone, sharing its element's life; null where there is none that could be
  /// started anew.
  [[nodiscard]] std::shared_ptr<GstUtil::BranchRestart> Find(PipelineType type) const;
  [[nodiscard]] std::optional<StallWatch::Condition> GetCondition(PipelineType type) const;
  /// Takes every branch whose device cannot be opened out of the pipeline, which would not start with it.
  void LeaveOutMissing() const;
  /// An error of an element: the branch that it belongs to has a problem from now on. False when it belongs to none.
  [[nodiscard]] bool NoteError(GstObject* source, const std::string& text) const;
  /// Nothing is to be waited for: it has delivered, has a problem, or does not exist.
  [[nodiscard]] bool IsSettled(PipelineType type) const;
  /// The first source that is not optional and has been missing for so long, as people know it; null when there is
  /// none.
  [[nodiscard]] const char* FindMissing(Milliseconds limit) const;
  /// Where the pipeline's time is, or would be if nothing had stopped it: what the entries tell since just before the
  /// sound fell silent, with which its clock may have stopped. No older ones: a sound card that loses samples is a
  /// clock that goes slow, and from half a minute back its time seems to be seconds further than it is.
  [[nodiscard]] GstClockTime GetRunningTime() const;

 private:
  [[nodiscard]] Milliseconds GetSilence(const Element& element) const;

  const PipelineConfig& m_config;
  const Share m_share;
  std::atomic<std::chrono::steady_clock::time_point> m_startedAt{};
};

}  // namespace Tavi::Pipeline
