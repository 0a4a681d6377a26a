// The collectors of an event.
#include "Tavi/EventCollect/CollectorSet.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>

#include "Tavi/Accel/AccPipelineCollect.h"
#include "Tavi/Audio/AudioPipelineCollect.h"
#include "Tavi/EventCollect/PreviewCollect.h"
#include "Tavi/EventCollect/ThumbnailCollect.h"
#include "Tavi/Gps/GpsPipelineCollect.h"
#include "Tavi/GstUtil/Log.h"
#include "Tavi/Other/OtherPipelineCollect.h"
#include "Tavi/Pipeline/PipelineManager.h"
#include "Tavi/PipelineCollect/PipelineCollect.h"
#include "Tavi/Video/VideoPipelineCollect.h"

namespace Tavi::PipelineCollect {
namespace {

using Kbase::Pipeline::IPipelineElement;
using Pipeline::PipelineType;
using Config = PipelineCollectManagerConfig;

template <class Collector>
std::unique_ptr<CollectBase> Make(IPipelineElement* ring, bool cr) {
  return std::make_unique<Collector>(ring, cr);
}

template <class Collector, CameraType camera>
std::unique_ptr<CollectBase> MakeForCamera(IPipelineElement* ring, bool cr) {
  return std::make_unique<Collector>(ring, camera, cr);
}

/// One stream: the ring that its collector reads, and how that is made.
struct Stream {
  PipelineCollectType type;
  PipelineType source;
  std::unique_ptr<CollectBase> (*make)(IPipelineElement* ring, bool cr);
  /// The flag that must be set for it; null: always. Only camera 0 can be left out of the two, since everything else is
  /// aligned to camera 1.
  bool Config::*isWanted;
};

constexpr std::array<Stream, 8> Streams{{
    {PipelineCollectType::VideoCamera1, PipelineType::Camera0,
     MakeForCamera<Video::VideoPipelineCollect, CameraType::Camera0>, &Config::withCamera0},
    {PipelineCollectType::VideoCamera0, PipelineType::Camera1,
     MakeForCamera<Video::VideoPipelineCollect, CameraType::Camera1>, nullptr},
    {PipelineCollectType::Audio, PipelineType::Audio, Make<Audio::AudioPipelineCollect>, &Config::withAudio},
    {PipelineCollectType::Gps, PipelineType::Gps, Make<Gps::GpsPipelineCollect>, nullptr},
    {PipelineCollectType::Acc, PipelineType::Acc, Make<Accel::AccPipelineCollect>, nullptr},
    {PipelineCollectType::Other, PipelineType::Other, Make<Other::OtherPipelineCollect>, nullptr},
    {PipelineCollectType::ThumbnailCamera1, PipelineType::Camera0, MakeForCamera<ThumbnailCollect, CameraType::Camera0>,
     &Config::withCamera0},
    {PipelineCollectType::ThumbnailCamera0, PipelineType::Camera1, MakeForCamera<ThumbnailCollect, CameraType::Camera1>,
     nullptr},
}};

/// How much shorter than asked for a stream's window is: the slow sources end a second early, so that the event does
/// not wait for an entry of theirs that comes up to a second after everybody else's last one.
int ShortenedBySeconds(PipelineCollectType type, bool cr) {
  if (type == PipelineCollectType::Gps || type == PipelineCollectType::Other) return 1;
  return type == PipelineCollectType::Acc && cr ? 3 : 0;
}

/// The length of a stream's window: the request's, which may be negative, brought nearer to 0.
std::int32_t ShortenDuration(std::int32_t seconds, int by) {
  if (seconds < 0) return std::min<std::int32_t>(seconds + by, 0);
  return std::max<std::int32_t>(seconds - by, 0);
}

}  // namespace

CollectorSet::CollectorSet(const Config& config, Kind kind) : m_config(config) {
  if (config.pipelineManager == nullptr) return;
  for (const Stream& stream : Streams) {
    if (stream.isWanted != nullptr && !(config.*stream.isWanted)) continue;
    const auto ring = config.pipelineManager->ShareElement(stream.source);
    if (!ring) continue;
    m_map[stream.type] = stream.make(kind == Kind::Working ? ring.get() : nullptr, config.cr);
  }
  if (!config.cr) CreatePreview(kind);
}

CollectorSet::~CollectorSet() = default;

void CollectorSet::CreatePreview(Kind kind) {
  auto* sound = GetFinished<Audio::AudioPipelineCollect>(m_map, PipelineCollectType::Audio);
  m_map[PipelineCollectType::Preview] = std::make_unique<PreviewCollect>(
      nullptr, nullptr, kind == Kind::Working ? sound : nullptr, m_config.previewFlag, m_config.previewParam);
  if (kind == Kind::Working) BindPreview();
}

void CollectorSet::BindPreview() {
  auto* preview = dynamic_cast<PreviewCollect*>(Get(PipelineCollectType::Preview));
  if (preview == nullptr) return;
  const auto camera0 = m_config.withCamera0 ? m_config.pipelineManager->ShareElement(PipelineType::Preview0) : nullptr;
  preview->Bind(camera0, m_config.pipelineManager->ShareElement(PipelineType::Preview1));
}

CollectBase* CollectorSet::Get(PipelineCollectType type) const {
  return Get(m_map, type);
}

CollectBase* CollectorSet::Get(const CollectorMap& collectors, PipelineCollectType type) {
  const auto found = collectors.find(type);
  return found == collectors.end() ? nullptr : found->second.get();
}

bool CollectorSet::Bind() {
  bool anyRing = m_map.empty();
  for (const Stream& stream : Streams) {
    auto* collector = dynamic_cast<PipelineCollect*>(Get(stream.type));
    if (collector == nullptr) continue;
    const auto ring = m_config.pipelineManager->ShareElement(stream.source);
    collector->Bind(ring);
    anyRing = anyRing || ring;
  }
  BindPreview();
  return anyRing;
}

Rings CollectorSet::GetRings() const {
  Rings rings;
  for (const auto& [type, collector] : m_map) {
    const auto* stream = dynamic_cast<const PipelineCollect*>(collector.get());
    if (auto ring = stream != nullptr ? stream->GetRing() : nullptr) rings[type] = std::move(ring);
  }
  return rings;
}

Rings CollectorSet::ShareRings(const Config& config) {
  Rings rings;
  for (const Stream& stream : Streams) {
    if (stream.isWanted != nullptr && !(config.*stream.isWanted)) continue;
    if (auto ring = config.pipelineManager->ShareElement(stream.source)) rings[stream.type] = std::move(ring);
  }
  return rings;
}

void CollectorSet::Arm(const PipelineCollectInput& input) {
  for (const auto& [type, collector] : m_map) {
    if (type == PipelineCollectType::Preview && !input.withPreview) continue;
    PipelineCollectConfig config{input.startSeconds,
                                 ShortenDuration(input.durationSeconds, ShortenedBySeconds(type, m_config.cr)),
                                 input.outputDir, input.care};
    config.care.coverSeconds = input.durationSeconds;
    collector->Init(config);
  }
}

void CollectorSet::SetStarts(const Starts& starts) {
  for (const auto& [type, start] : starts) {
    if (auto* stream = dynamic_cast<PipelineCollect*>(Get(type))) stream->SetStart(start);
  }
}

void CollectorSet::SetHeld(HeldWindow& held) {
  // Before the sound goes to its collector: the preview takes a copy.
  if (auto* preview = dynamic_cast<PreviewCollect*>(Get(PipelineCollectType::Preview))) preview->SetHeld(held);
  for (const auto& [type, collector] : m_map) {
    if (auto* still = dynamic_cast<ThumbnailCollect*>(collector.get())) still->SetFrame(held.TakeStill(type));
    auto* stream = dynamic_cast<PipelineCollect*>(collector.get());
    auto window = stream != nullptr ? held.Take(type, stream->GetRing()) : std::nullopt;
    if (window) stream->SetHeld(std::move(window->reader), window->fps);
  }
}

bool CollectorSet::WaitsForSilentOnly() const {
  return std::all_of(m_map.begin(), m_map.end(),
                     [](const auto& entry) { return !entry.second->IsRunning() || entry.second->IsSilent(); });
}

void CollectorSet::EndInSilence() {
  for (const auto& [type, collector] : m_map) collector->EndInSilence();
}

void CollectorSet::Start() {
  for (const auto& [type, collector] : m_map) {
    if (collector->IsArmed()) collector->IThread::Start();
  }
}

bool CollectorSet::Running() const {
  return std::any_of(m_map.begin(), m_map.end(), [](const auto& entry) { return entry.second->IsRunning(); });
}

void CollectorSet::RequestStop(bool abort) {
  for (const auto& [type, collector] : m_map) {
    collector->RequestStop();
    if (abort && collector->IsRunning()) collector->Cancel();
  }
}

void CollectorSet::RequestSave() {
  for (const auto& [type, collector] : m_map) {
    if (!collector->IsRunning()) continue;
    collector->SetSyncToDisk(true);
    collector->RequestStop();
  }
}

void CollectorSet::LogHanging(const char* what) const {
  for (const auto& [type, collector] : m_map) {
    if (collector->IsRunning()) Log::Error(collector->GetPath() + " " + what + ": its disk does not answer");
  }
}

void CollectorSet::CopyTo(const CollectorSet& twins) const {
  for (const auto& [type, collector] : m_map) collector->CopyTo(twins.Get(type));
}

void CollectorSet::Reset() {
  for (const auto& [type, collector] : m_map) {
    if (!collector->IsRunning()) collector->Reset();
  }
}

void CollectorSet::DeleteAll() {
  for (const auto& [type, collector] : m_map) {
    if (!collector->IsRunning()) collector->DeletePath();
  }
}

}  // namespace Tavi::PipelineCollect
