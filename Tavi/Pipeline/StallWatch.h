// Looks for sources that have fallen silent and has them started anew.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Kbase/Interfaces/IThread.h"
#include "Tavi/Pipeline/PipelineType.h"

namespace Tavi::Pipeline {

/// The thread "STALL". A source that has failed is started anew by itself, one that has been silent for the limit by
/// itself twice and then with the whole pipeline; the pause doubles from try to try. Each try is one line in the log,
/// and the recovery another; of a device that is not there only the first try is.
class StallWatch final : public Kbase::Interfaces::IThread {
 public:
  struct Condition {
    /// Since it delivered, or since the start.
    Milliseconds silence{0};
    /// What is known to be wrong: a reason not to wait for the limit. Empty otherwise.
    std::string problem;
  };
  enum class Outcome {
    /// It was not the time for that.
    PutOff,
    Restarted,
    /// The device cannot be opened; nothing else was touched.
    Missing,
  };
  /// Empty when there is no such source.
  using GetCondition = std::function<std::optional<Condition>(PipelineType)>;
  /// Starts a source, or with it the whole pipeline, anew.
  using Restart = std::function<Outcome(PipelineType, bool whole)>;

  static constexpr Milliseconds LongestPause{300'000};
  /// Of one whose fault is known to be its own: the others are not touched.
  static constexpr Milliseconds LongestBranchPause{60'000};
  /// Opening a device that is not there disturbs nobody.
  static constexpr Milliseconds LongestAbsence{10'000};

  /// `limit` of 0: only a source with a problem is started anew. `onLook` is called after each look, on the thread.
  StallWatch(Milliseconds limit, GetCondition getCondition, Restart restart, std::function<void()> onLook = {});
  ~StallWatch() override;

  /// One look at all sources, at `now` of a steady clock. What the thread does once a second.
  void Look(Milliseconds now);
  /// Has the thread look now in place of in a second. Thread-safe, waits for nobody.
  void LookSoon() { Wake(); }

 protected:
  void Run() override;

 private:
  struct Source {
    PipelineType type{};
    int tries = 0;
    /// Since it was last there.
    int absences = 0;
    /// Without a problem at some look: who brought it up has told of one that was there from the beginning.
    bool wasFine = false;
    /// It has delivered since the last try.
    bool isBack = false;
    Milliseconds triedAt{0};
    Milliseconds due{0};
    /// Others were started anew: until then it may come back by itself.
    Milliseconds patientUntil{0};
  };

  void LookAt(Source& source, Milliseconds now);
  void Try(Source& source, const Condition& condition, Milliseconds now);
  void NoteAbsence(Source& source, Milliseconds now);

  const Milliseconds m_limit;
  /// From one try to the next, before it grows.
  const Milliseconds m_pause;
  const GetCondition m_getCondition;
  const Restart m_restart;
  const std::function<void()> m_onLook;
  std::vector<Source> m_sources;
};

}  // namespace Tavi::Pipeline
