// Looks for sources that have fallen silent and has them started anew.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <vector>

#include "Kbase/Interfaces/IThread.h"
#include "Tavi/Pipeline/PipelineType.h"

namespace Tavi::Pipeline {

/// The thread "STALL". A source that has been silent for the limit is started anew: its branch twice, then the whole
/// pipeline, with a pause that doubles from try to try. Each try is one line in the log, and the recovery another.
class StallWatch final : public Kbase::Interfaces::IThread {
 public:
  /// For how long the source has been silent; empty when there is none.
  using GetSilence = std::function<std::optional<Milliseconds>(PipelineType)>;
  /// Starts a source, or with it the whole pipeline, anew. False when it is not the time for that.
  using Restart = std::function<bool(PipelineType, bool whole)>;

  static constexpr Milliseconds LongestPause{300'000};

  StallWatch(Milliseconds limit, GetSilence getSilence, Restart restart);
  ~StallWatch() override;

  /// One look at all sources, at `now` of a steady clock. What the thread does once a second.
  void Look(Milliseconds now);

 protected:
  void Run() override;

 private:
  struct Source {
    PipelineType type{};
    /// As people know it.
    const char* name = "";
    int tries = 0;
    Milliseconds due{0};
  };

  void LookAt(Source& source, Milliseconds now);
  void Try(Source& source, Milliseconds silence, Milliseconds now);

  const Milliseconds m_limit;
  const GetSilence m_getSilence;
  const Restart m_restart;
  std::vector<Source> m_sources;
};

}  // namespace Tavi::Pipeline
