// Looks for sources that have fallen silent and has them started anew.
#include "Tavi/Pipeline/StallWatch.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "Tavi/GstUtil/Log.h"

namespace Tavi::Pipeline {
namespace {

constexpr std::chrono::milliseconds LookPeriod{1000};
constexpr int BranchTries = 2;
constexpr int MostDoublings = 10;

}  // namespace

// The microphone first: when the sound card's clock stands still, everything that goes by it does, too.
StallWatch::StallWatch(Milliseconds limit, GetSilence getSilence, Restart restart)
    : IThread("STALL", OnFailure::GoOn),
      m_limit(limit),
      m_getSilence(std::move(getSilence)),
      m_restart(std::move(restart)),
      m_sources{{PipelineType::Audio, "audio", 0, Milliseconds(0)},
                {PipelineType::Camera0, "camera1", 0, Milliseconds(0)},
                {PipelineType::Camera1, "camera0", 0, Milliseconds(0)}} {}

StallWatch::~StallWatch() {
  Stop();
}

void StallWatch::Run() {
  if (WaitForCancel(LookPeriod)) return;
  Look(std::chrono::duration_cast<Milliseconds>(std::chrono::steady_clock::now().time_since_epoch()));
}

void StallWatch::Look(Milliseconds now) {
  for (Source& source : m_sources) {
    if (!IsCancelled()) LookAt(source, now);
  }
}

void StallWatch::LookAt(Source& source, Milliseconds now) {
  const auto silence = m_getSilence(source.type);
  if (!silence) return;
  if (*silence >= m_limit) {
    if (now >= source.due) Try(source, *silence, now);
    return;
  }
  if (source.tries > 0) {
    Log::Info(fmt::format("{} delivers again, after {} {}", source.name, source.tries,
                          source.tries == 1 ? "restart" : "restarts"));
  }
  source.tries = 0;
}

void StallWatch::Try(Source& source, Milliseconds silence, Milliseconds now) {
  const bool whole = source.tries >= BranchTries;
  if (!m_restart(source.type, whole)) return;
  ++source.tries;
  source.due = now + std::min(m_limit * (1 << std::min(source.tries, MostDoublings)), LongestPause);
  Log::Warning(fmt::format("{} has been silent for {} ms: {} started anew (try {})", source.name, silence.count(),
                           whole ? "the pipeline was" : "it was", source.tries));
  // What this one held up, or what stopped with it, is given the time to come back by itself.
  for (Source& other : m_sources) other.due = std::max(other.due, now + m_limit);
}

}  // namespace Tavi::Pipeline
