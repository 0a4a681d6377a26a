// The acquisition's entry object.
#include "Tavi/Pipeline/PipelineManager.h"

#include <algorithm>
#include <array>
#include <utility>

#include "Ksystem/System/Reboot.h"
#include "Tavi/Accel/AccPipelineElement.h"
#include "Tavi/Audio/AudioPipelineElement.h"
#include "Tavi/Gps/GpsPipelineElement.h"
#include "Tavi/GstUtil/Log.h"
#include "Tavi/Other/OtherPipelineElement.h"
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
  GstPipelineManager::Start();
  for (const auto& [type, element] : m_elements) element->Start();
}

void PipelineManager::Stop() {
  // Before the lock: a source may take its time to start, and an error meanwhile must not restart a unit that ends.
  if (m_started) EndSupervision();
  const std::lock_guard lock(m_lifecycleMutex);
  if (m_initialized && m_started) TearDown();
}

void PipelineManager::TearDown() {
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
