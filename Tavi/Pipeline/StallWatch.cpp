// Looks for sources that have fallen silent and has them started anew.
#include "Tavi/Pipeline/StallWatch.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "Tavi/GstUtil/Log.h"

namespace Tavi::Pipeline {
namespace {

constexpr std::chrono::milliseconds LookPeriod{1000};
constexpr std::chrono::milliseconds DefaultPause{10'000};
/// What tells a source that delivers from one that has only been brought up: a camera of one frame a second.
constexpr std::chrono::milliseconds Fresh{1500};
constexpr int BranchTries = 2;
constexpr int MostDoublings = 10;

std::chrono::milliseconds Grow(std::chrono::milliseconds pause, int tries, std::chrono::milliseconds longest) {
  return std::min(pause * (1 << std::min(tries, MostDoublings)), longest);
}

}  // namespace

// The microphone first: when the sound card's clock stands still, everything that goes by it does, too.
StallWatch::StallWatch(Milliseconds limit, GetCondition getCondition, Restart restart, std::function<void()> onLook)
    : IThread("STALL", OnFailure::GoOn),
      m_limit(limit),
      m_pause(limit.count() > 0 ? limit : DefaultPause),
      m_getCondition(std::move(getCondition)),
      m_restart(std::move(restart)),
      m_onLook(std::move(onLook)),
      m_sources{{PipelineType::Audio}, {PipelineType::Camera0}, {PipelineType::Camera1}} {}

StallWatch::~StallWatch() {
  Stop();
}

void StallWatch::Run() {
  if (WaitForCancel(LookPeriod)) return;
  Look(std::chrono::duration_cast<Milliseconds>(std::chrono::steady_clock::now().time_since_epoch()));
  if (m_onLook) m_onLook();
}

void StallWatch::Look(Milliseconds now) {
  for (Source& source : m_sources) {
    if (!IsCancelled()) LookAt(source, now);
  }
}

void StallWatch::LookAt(Source& source, Milliseconds now) {
  const auto condition = m_getCondition(source.type);
  if (!condition) return;
  source.wasFine = source.wasFine || condition->problem.empty();
  const bool isSilent = m_limit.count() > 0 && condition->silence >= m_limit;
  if (isSilent || !condition->problem.empty()) {
    const bool isPatient = condition->problem.empty() && now < source.patientUntil;
    if (now >= source.due && !isPatient) Try(source, *condition, now);
    return;
  }
  // One that was just brought up is given its time.
  if (source.tries == 0 || condition->silence >= Fresh) return;
  if (!source.isBack) {
    Log::Info(fmt::format("{} delivers again, after {} {}", GetPeoplesName(source.type), source.tries,
                          source.tries == 1 ? "restart" : "restarts"));
  }
  source.isBack = true;
  // One that fails again soon is tried ever more rarely.
  if (now - source.triedAt >= m_pause) source.tries = source.absences = 0;
}

void StallWatch::Try(Source& source, const Condition& condition, Milliseconds now) {
  // What is known to be this source's own fault is no reason to stop the others.
  const bool isKnown = !condition.problem.empty();
  const bool whole = source.tries >= BranchTries && !isKnown;
  const Outcome outcome = m_restart(source.type, whole);
  if (outcome == Outcome::PutOff) return;
  if (outcome == Outcome::Missing) {
    NoteAbsence(source, now);
    return;
  }
  ++source.tries;
  source.isBack = false;
  source.triedAt = now;
  source.due =
      now + (isKnown ? Grow(LookPeriod, source.tries, LongestBranchPause) : Grow(m_pause, source.tries, LongestPause));
  const std::string why = isKnown ? fmt::format("had failed ({})", condition.problem)
                                  : fmt::format("has been silent for {} ms", condition.silence.count());
  Log::Warning(fmt::format("{} {}: {} started anew (try {})", GetPeoplesName(source.type), why,
                           whole ? "the pipeline was" : "it was", source.tries));
  // What this one held up, or what stopped with it, is given the time to come back by itself.
  for (Source& other : m_sources) other.patientUntil = now + m_pause;
}

void StallWatch::NoteAbsence(Source& source, Milliseconds now) {
  source.due = now + Grow(LookPeriod, ++source.absences, LongestAbsence);
  if (source.absences > 1 || !source.wasFine) return;
  const auto condition = m_getCondition(source.type);
  Log::Warning(fmt::format("{} cannot be opened ({}): it is tried again, at least every {} s",
                           GetPeoplesName(source.type), condition ? condition->problem : "",
                           std::chrono::duration_cast<std::chrono::seconds>(LongestAbsence).count()));
}

}  // namespace Tavi::Pipeline
