// The acquisition's entry object.
#include "Tavi/Pipeline/PipelineManager.h"

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
#include "Tavi/PipelineCollect/RingTime.h"
#include "Tavi/Video/PreviewPipelineElement.h"
#include "Tavi/Video/VideoPipelineElement.h"

namespace Tavi::Pipeline {
namespace {

/// What every ring holds.
constexpr int RingSeconds = 32;
constexpr int SupervisionRounds = 50;
constexpr Kbase::Util::IClock::Milliseconds SupervisionPeriod{1000};

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

/// The running time of the entry and what has passed since; 0 where it has none.
GstClockTime GetTimeSince(const Kbase::Pipeline::IPipelineElement::Entry& entry) {
  const auto timestamp = PipelineCollect::GetTimestamp(entry.get());
  if (!timestamp) return 0;
  return *timestamp + static_cast<GstClockTime>(std::chrono::nanoseconds(PipelineCollect::GetAge(entry.get())).count());
}

}  // namespace

PipelineManager::PipelineManager(const PipelineConfig& config, Kbase::Util::IClock& clock)
    : GstPipelineManager(config), m_clock(clock) {
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
  m_startedAt = std::chrono::steady_clock::now();
  GstPipelineManager::Start();
  for (const auto& [type, element] : m_elements) element->Start();
  if (m_config.restartAfterSeconds <= 0) return;
  m_stallWatch = std::make_unique<StallWatch>(
      std::chrono::seconds(m_config.restartAfterSeconds), [this](PipelineType type) { return GetSilence(type); },
      [this](PipelineType type, bool whole) { return RestartSource(type, whole); });
  m_stallWatch->Start();
}

void PipelineManager::ReviveLoop() {
  const std::lock_guard lock(m_lifecycleMutex);
  if (!HasLoopEnded() || m_supervisionEnded) return;
  Log::Warning("an error has ended the pipeline: it is started anew");
  RestartPipelines(GetRunningTime());
}

std::optional<PipelineManager::Milliseconds> PipelineManager::GetSilence(PipelineType type) const {
  const auto element = ShareElement(type);
  if (FindBranch(element) == nullptr) return {};
  if (element->IsDataAvailable()) return PipelineCollect::GetAge(*element);
  return std::chrono::duration_cast<Milliseconds>(std::chrono::steady_clock::now() - m_startedAt.load());
}

GstUtil::BranchRestart* PipelineManager::FindBranch(const Element& element) {
  GstUtil::BranchRestart* branch = nullptr;
  if (auto* camera = dynamic_cast<Video::VideoPipelineElement*>(element.get())) branch = &camera->GetBranch();
  if (auto* audio = dynamic_cast<Audio::AudioPipelineElement*>(element.get())) branch = &audio->GetBranch();
  return branch != nullptr && branch->IsPossible() ? branch : nullptr;
}

/// What the entries tell: the newest, and, where the clock has stood still since, the oldest.
GstClockTime PipelineManager::GetRunningTime() const {
  GstClockTime latest = 0;
  for (const auto type : {PipelineType::Camera0, PipelineType::Camera1, PipelineType::Audio}) {
    const auto element = ShareElement(type);
    if (!element || !element->IsDataAvailable()) continue;
    const auto oldest = element->GetElementAt(static_cast<unsigned int>(element->GetCurrentFrameId() + 1));
    for (const auto& entry : {element->RetrieveCurrent(), oldest, element->GetElementAt(0)}) {
      latest = std::max(latest, GetTimeSince(entry));
    }
  }
  return latest;
}

/// On the thread "STALL". A manager that is being started or stopped is left alone.
bool PipelineManager::RestartSource(PipelineType type, bool whole) {
  const std::unique_lock lock(m_lifecycleMutex, std::try_to_lock);
  if (!lock || !m_started || m_supervisionEnded) return false;
  const auto element = ShareElement(type);
  GstUtil::BranchRestart* branch = FindBranch(element);
  if (branch == nullptr) return false;
  branch->TakeDown();
  if (whole || HasLoopEnded()) {
    RestartPipelines(GetRunningTime());
  } else if (type == PipelineType::Audio) {
    // Its clock has stopped with it, and with the clock whatever waits for it.
    ChangeToSystemClock(GetRunningTime());
  }
  branch->BringUp(GetGstPipeline(GstPipelineType::Camera01Audio));
  return true;
}

void PipelineManager::Stop() {
  // Before the lock: a source may take its time to start, and an error meanwhile must not restart a unit that ends.
  if (m_started) EndSupervision();
  const std::lock_guard lock(m_lifecycleMutex);
  if (m_initialized && m_started) TearDown();
}

void PipelineManager::TearDown() {
  m_stallWatch.reset();
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
  if (m_supervisionEnded) return;
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
  return std::all_of(SupervisedSources.begin(), SupervisedSources.end(),
                     [this](const SupervisedSource& source) { return ShareElement(source.type) != nullptr; });
}

/// The element is shared for the look only: who keeps one would keep it from ending when it is stopped.
bool PipelineManager::HasData(PipelineType type) const {
  const auto element = ShareElement(type);
  return element && element->IsDataAvailable();
}

bool PipelineManager::RunProperly() const {
  if (!IsSupervised()) return true;
  for (int round = 0; round < SupervisionRounds && !m_supervisionEnded; ++round) {
    if (std::all_of(SupervisedSources.begin(), SupervisedSources.end(),
                    [this](const SupervisedSource& source) { return HasData(source.type); })) {
      return true;
    }
    m_clock.Sleep(SupervisionPeriod);
  }
  if (m_supervisionEnded) return false;
  for (const auto& [type, silent] : SupervisedSources) {
    if (!HasData(type)) Log::Error(silent);
  }
  return false;
}

}  // namespace Tavi::Pipeline
