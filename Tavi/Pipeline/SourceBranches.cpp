// The branches of cameras and microphone, looked after while the pipeline plays.
#include "Tavi/Pipeline/SourceBranches.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "Tavi/Audio/AudioPipelineElement.h"
#include "Tavi/GstUtil/BranchRestart.h"
#include "Tavi/GstUtil/Log.h"
#include "Tavi/PipelineCollect/RingTime.h"
#include "Tavi/Video/VideoPipelineElement.h"

namespace Tavi::Pipeline {
namespace {

/// From the last sound that was delivered back to one that was captured while the clock went for sure.
constexpr std::chrono::milliseconds SoundMargin{500};
constexpr std::array BranchTypes{PipelineType::Camera0, PipelineType::Camera1, PipelineType::Audio};

/// The running time of the entry and what has passed since; 0 where it has none.
GstClockTime GetTimeSince(const Kbase::Pipeline::IPipelineElement::Entry& entry) {
  const auto timestamp = PipelineCollect::GetTimestamp(entry.get());
  if (!timestamp) return 0;
  return *timestamp + static_cast<GstClockTime>(std::chrono::nanoseconds(PipelineCollect::GetAge(entry.get())).count());
}

/// The most that GetTimeSince gives of the ring's entries from now back to the first one that is older than `span`.
GstClockTime FindLatestTime(const Kbase::Pipeline::IPipelineElement& ring, std::chrono::milliseconds span) {
  GstClockTime latest = 0;
  const auto newest = static_cast<int>(ring.GetRingPos());
  for (int back = 0; back + 1 < static_cast<int>(ring.GetRingSize()); ++back) {
    const auto entry = ring.GetElementAt(ring.SeekRelative(newest, back));
    if (!entry) break;
    latest = std::max(latest, GetTimeSince(entry));
    if (PipelineCollect::GetAge(entry.get()) > span) break;
  }
  return latest;
}

}  // namespace

std::shared_ptr<GstUtil::BranchRestart> SourceBranches::Find(PipelineType type) const {
  const Element element = m_share(type);
  GstUtil::BranchRestart* branch = nullptr;
  if (auto* camera = dynamic_cast<Video::VideoPipelineElement*>(element.get())) branch = &camera->GetBranch();
  if (auto* audio = dynamic_cast<Audio::AudioPipelineElement*>(element.get())) branch = &audio->GetBranch();
  if (branch == nullptr || !branch->IsPossible()) return nullptr;
  return {element, branch};
}

SourceBranches::Milliseconds SourceBranches::GetSilence(const Element& element) const {
  if (element->IsDataAvailable()) return PipelineCollect::GetAge(*element);
  return std::chrono::duration_cast<Milliseconds>(std::chrono::steady_clock::now() - m_startedAt.load());
}

std::optional<StallWatch::Condition> SourceBranches::GetCondition(PipelineType type) const {
  const auto branch = Find(type);
  const Element element = m_share(type);
  if (!branch || !element) return {};
  return StallWatch::Condition{GetSilence(element), branch->GetProblem()};
}

void SourceBranches::LeaveOutMissing() const {
  for (const PipelineType type : BranchTypes) {
    const auto branch = Find(type);
    if (!branch) continue;
    branch->TakeDown();
    const std::string told = branch->GetProblem();
    if (branch->TryOpen()) {
      branch->Release();
    } else if (branch->GetProblem() != told) {
      Log::Error(fmt::format("{} cannot be opened ({}): it is left out until it can", GetPeoplesName(type),
                             branch->GetProblem()));
    }
  }
}

bool SourceBranches::NoteError(GstObject* source, const std::string& text) const {
  for (const PipelineType type : BranchTypes) {
    const auto branch = Find(type);
    if (!branch || !branch->Owns(source)) continue;
    // The first of several tells what has happened, the others what came of it.
    if (!branch->GetProblem().empty()) return true;
    Log::Error(fmt::format("{} has failed: {}", GetPeoplesName(type), text));
    branch->SetProblem(text);
    return true;
  }
  return false;
}

bool SourceBranches::IsSettled(PipelineType type) const {
  const Element element = m_share(type);
  if (!element || element->IsDataAvailable()) return true;
  const auto branch = Find(type);
  return branch && !branch->GetProblem().empty();
}

const char* SourceBranches::FindMissing(Milliseconds limit) const {
  const std::array<std::pair<PipelineType, bool>, 5> sources{{{PipelineType::Camera0, m_config.camera0.optional},
                                                              {PipelineType::Camera1, m_config.camera1.optional},
                                                              {PipelineType::Audio, m_config.audio.optional},
                                                              {PipelineType::Gps, m_config.gps.optional},
                                                              {PipelineType::Acc, m_config.acc.optional}}};
  for (const auto& [type, isOptional] : sources) {
    const Element element = isOptional ? nullptr : m_share(type);
    if (element && GetSilence(element) >= limit) return GetPeoplesName(type);
  }
  return nullptr;
}

GstClockTime SourceBranches::GetRunningTime() const {
  const Element sound = m_share(PipelineType::Audio);
  const auto span = (sound ? GetSilence(sound) : Milliseconds(0)) + SoundMargin;
  GstClockTime latest = 0;
  for (const PipelineType type : BranchTypes) {
    const Element element = m_share(type);
    if (element && element->IsDataAvailable()) latest = std::max(latest, FindLatestTime(*element, span));
  }
  return latest;
}

}  // namespace Tavi::Pipeline
