// The acquisition's entry object.
#include "Tavi/Pipeline/PipelineManager.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <utility>

#include "Ksystem/System/Reboot.h"
#include "Tavi/Accel/AccPipelineElement.h"
#include "Tavi/Audio/AudioPipelineElement.h"
#include "Tavi/Gps/GpsPipelineElement.h"
#include "Tavi/GstUtil/BranchRestart.h"
#include "Tavi/GstUtil/Log.h"
#include "Tavi/Other/OtherPipelineElement.h"
#include "Tavi/Video/PreviewPipelineElement.h"
#include "Tavi/Video/VideoPipelineElement.h"

namespace Tavi::Pipeline {
namespace {

/// What every ring holds.
constexpr int RingSeconds = 32;
constexpr int SupervisionRounds = 50;
/// One that keeps going waits so long for what may never come.
constexpr int ShortRounds = 10;
constexpr Kbase::Util::IClock::Milliseconds SupervisionPeriod{1000};
constexpr std::chrono::seconds RevivalPause{10};

struct SupervisedSource {
  PipelineType type;
  const char* silent;
};

// The camera numbers cross over against the keys, as they do in every name that people see.
constexpr std::array<SupervisedSource, 3> SupervisedSources{{
    {PipelineType::Camera0, "Aquisition for camera 1 cannot be started"},
    {PipelineType::Camera1, "Aquisition for camera 0 cannot be started"},
    {PipelineType::Gps, "Aquisition for gps cannot be started"},
}};

template <class Condition>
bool AreAll(Condition condition) {
  return std::all_of(SupervisedSources.begin(), SupervisedSources.end(),
                     [&](const SupervisedSource& source) { return condition(source.type); });
}

}  // namespace

PipelineManager::PipelineManager(const PipelineConfig& config, Kbase::Util::IClock& clock)
    : GstPipelineManager(config),
      m_clock(clock),
      m_branches(m_config, [this](PipelineType type) { return ShareElement(type); }) {
  PipelineManager::Init();
}

PipelineManager::~PipelineManager() {
  EndSupervision();
  const std::lock_guard lock(m_lifecycleMutex);
  if (m_initialized) TearDown();
}

Kbase::Pipeline::IPipelineElement* PipelineManager::GetPipelineElement(PipelineType type) const {
  return ShareElement(type).get();
}

PipelineManager::Element PipelineManager::ShareElement(PipelineType type) const {
  const std::lock_guard lock(m_elementsMutex);
  const auto found = m_elements.find(type);
  return found == m_elements.end() ? nullptr : found->second;
}

void PipelineManager::AddElement(PipelineType type, Element element) {
  const std::lock_guard lock(m_elementsMutex);
  m_elements[type] = std::move(element);
}

PipelineManager::VideoElement PipelineManager::CreateCamera(PipelineType type, const Video::VideoConfig& config) {
  auto camera = std::make_shared<Video::VideoPipelineElement>(GetGstPipeline(GstPipelineType::Camera01Audio), config,
                                                              config.fps * RingSeconds);
  AddElement(type, camera);
  return camera;
}

void PipelineManager::CreatePreview(PipelineType type, const Video::VideoConfig& config, const VideoElement& camera) {
  if (!camera || !config.previewEnabled) return;
  auto preview = std::make_shared<Video::PreviewPipelineElement>(config, config.previewFps * config.previewSeconds);
  AddElement(type, preview);
  camera->SetPreviewElement(preview.get());
}

void PipelineManager::CreateAudioAndSensors() {
  if (m_config.audioEnabled) {
    // Truncated: 38.3 frames a second make a ring of 1225.
    const int ringSize = static_cast<int>(m_config.audio.frameRate * RingSeconds);
    AddElement(PipelineType::Audio, std::make_shared<Audio::AudioPipelineElement>(
                                        GetGstPipeline(GstPipelineType::Camera01Audio), m_config.audio, ringSize));
  }
  if (m_config.gpsEnabled) {
    AddElement(PipelineType::Gps,
               std::make_shared<Gps::GpsPipelineElement>(m_config.gps, m_config.gps.rate * RingSeconds));
  }
  if (m_config.accEnabled) {
    AddElement(PipelineType::Acc,
               std::make_shared<Accel::AccPipelineElement>(m_config.acc, m_config.acc.rate * RingSeconds));
  }
  if (m_config.otherEnabled) {
    AddElement(PipelineType::Other,
               std::make_shared<Other::OtherPipelineElement>(m_config.other, m_config.other.rate * RingSeconds));
  }
}

void PipelineManager::CreateElements() {
  VideoElement camera0;
  VideoElement camera1;
  if (m_config.camera0Enabled) camera0 = CreateCamera(PipelineType::Camera0, m_config.camera0);
  if (m_config.camera1Enabled) camera1 = CreateCamera(PipelineType::Camera1, m_config.camera1);
  CreateAudioAndSensors();
  CreatePreview(PipelineType::Preview0, m_config.camera0, camera0);
  CreatePreview(PipelineType::Preview1, m_config.camera1, camera1);
}

void PipelineManager::Init() {
  const std::lock_guard lock(m_lifecycleMutex);
  if (m_initialized || m_started) return;
  m_supervisionEnded = false;
  GstPipelineManager::Init();
  CreateElements();
}

void PipelineManager::Start() {
  const std::lock_guard lock(m_lifecycleMutex);
  if (!m_initialized || m_started) return;
  m_branches.NoteStart();
  GstPipelineManager::Start();
  for (const auto& [type, element] : m_elements) element->Start();
  if (m_config.restartAfterSeconds <= 0 && !m_config.keepGoing) return;
  auto watch = std::make_unique<StallWatch>(
      std::chrono::seconds(m_config.restartAfterSeconds),
      [this](PipelineType type) { return m_branches.GetCondition(type); },
      [this](PipelineType type, bool whole) { return RestartSource(type, whole); }, [this] { KeepGoing(); });
  watch->Start();
  const std::lock_guard watchLock(m_watchMutex);
  m_stallWatch = std::move(watch);
}

std::string PipelineManager::GetProblem(PipelineType type) const {
  const auto branch = m_branches.Find(type);
  return branch ? branch->GetProblem() : std::string();
}

void PipelineManager::PrepareStart() {
  if (m_config.keepGoing) m_branches.LeaveOutMissing();
}

bool PipelineManager::TakeError(GstObject* source, const std::string& text) {
  if (!m_config.keepGoing || !m_branches.NoteError(source, text)) return false;
  // At once, not at the next look: what it would deliver until then is lost.
  const std::lock_guard lock(m_watchMutex);
  if (m_stallWatch) m_stallWatch->LookSoon();
  return true;
}

void PipelineManager::ReviveLoop() {
  const std::lock_guard lock(m_lifecycleMutex);
  if (!HasLoopEnded() || m_supervisionEnded) return;
  Revive();
}

void PipelineManager::Revive() {
  Log::Warning("an error has ended the pipeline: it is started anew");
  RestartPipelines(m_branches.GetRunningTime());
}

/// On the thread "STALL", once a second.
void PipelineManager::KeepGoing() {
  if (!m_config.keepGoing) return;
  {
    const std::unique_lock lock(m_lifecycleMutex, std::try_to_lock);
    if (!lock || !m_started || m_supervisionEnded) return;
    const auto now = std::chrono::steady_clock::now();
    if (HasLoopEnded() && now >= m_nextRevival) {
      m_nextRevival = now + RevivalPause;
      Revive();
    }
  }
  const std::chrono::minutes limit(m_config.restartUnitAfterMinutes);
  const char* missing = limit.count() > 0 ? m_branches.FindMissing(limit) : nullptr;
  if (missing == nullptr || m_restartAsked.exchange(true)) return;
  Log::Error(fmt::format("{} has been missing for {} min, and nothing has brought it back", missing, limit.count()));
  Log::Info("Rebooting...");
  Ksystem::System::Reboot();
}

/// On the thread "STALL". A manager that is being started or stopped is left alone.
StallWatch::Outcome PipelineManager::RestartSource(PipelineType type, bool whole) {
  const std::unique_lock lock(m_lifecycleMutex, std::try_to_lock);
  if (!lock || !m_started || m_supervisionEnded) return StallWatch::Outcome::PutOff;
  const auto branch = m_branches.Find(type);
  if (!branch) return StallWatch::Outcome::PutOff;
  branch->TakeDown();
  // Its clock has stopped with it, and with the clock whatever goes by it: before anything that takes time.
  if (type == PipelineType::Audio) ChangeToSystemClock(m_branches.GetRunningTime());
  const bool isThere = branch->TryOpen();
  if (isThere && (whole || HasLoopEnded())) RestartPipelines(m_branches.GetRunningTime());
  if (!isThere) return StallWatch::Outcome::Missing;
  branch->BringUp(GetGstPipeline(GstPipelineType::Camera01Audio));
  return StallWatch::Outcome::Restarted;
}

void PipelineManager::Stop() {
  // Before the lock: a source may take its time to start, and an error meanwhile must not restart a unit that ends.
  if (m_started) EndSupervision();
  const std::lock_guard lock(m_lifecycleMutex);
  if (m_initialized && m_started) TearDown();
}

void PipelineManager::TearDown() {
  std::unique_ptr<StallWatch> watch;
  {
    const std::lock_guard lock(m_watchMutex);
    watch = std::move(m_stallWatch);
  }
  watch.reset();
  for (const auto& [type, element] : m_elements) element->Stop();
  GstPipelineManager::Stop();
  std::map<PipelineType, Element> elements;
  {
    const std::lock_guard lock(m_elementsMutex);
    elements.swap(m_elements);
  }
  for (auto& [type, element] : elements) element.reset();
}

void PipelineManager::RunIgnitionStart() {
  Start();
  ReviveLoop();
  const bool running = RunProperly();
  if (m_supervisionEnded || m_config.keepGoing) return;
  if (running) {
    Arm();
    return;
  }
  Log::Info("Rebooting...");
  Ksystem::System::Reboot();
}

void PipelineManager::Arm() {
  const std::lock_guard lock(m_armMutex);
  if (m_started && !m_supervisionEnded) m_rebootOnError = true;
}

void PipelineManager::EndSupervision() {
  const std::lock_guard lock(m_armMutex);
  m_supervisionEnded = true;
  m_rebootOnError = false;
}

void PipelineManager::RunIgnitionOff() {
  m_rebootOnError = false;
}

void PipelineManager::RunSigInt() {
  Stop();
}

bool PipelineManager::IsSupervised() const {
  return AreAll([this](PipelineType type) { return ShareElement(type) != nullptr; });
}

/// The element is shared for the look only: who keeps one would keep it from ending when it is stopped.
bool PipelineManager::HasData(PipelineType type) const {
  const auto element = ShareElement(type);
  return element && element->IsDataAvailable();
}

bool PipelineManager::RunProperly() const {
  if (!IsSupervised()) return true;
  const int rounds = m_config.keepGoing ? ShortRounds : SupervisionRounds;
  for (int round = 0; round < rounds && !m_supervisionEnded; ++round) {
    if (AreAll([this](PipelineType type) { return HasData(type); })) return true;
    if (m_config.keepGoing && AreAll([this](PipelineType type) { return m_branches.IsSettled(type); })) break;
    m_clock.Sleep(SupervisionPeriod);
  }
  if (m_supervisionEnded) return false;
  for (const auto& [type, silent] : SupervisedSources) {
    // What is known to be wrong has its line.
    if (!HasData(type) && !(m_config.keepGoing && !GetProblem(type).empty())) Log::Error(silent);
  }
  return false;
}

}  // namespace Tavi::Pipeline
