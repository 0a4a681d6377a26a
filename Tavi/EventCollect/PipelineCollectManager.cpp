// Turns a collect request into a finished set of files.
#include "Tavi/EventCollect/PipelineCollectManager.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <ctime>
#include <string>
#include <utility>

#include <fmt/format.h>

#include "Kbase/Util/TimeMonitor.h"
#include "Ksystem/DiskUtils/DiskBase.h"
#include "Ksystem/FileUtils/Kdir.h"
#include "Ksystem/SysUtil/ClearCache.h"
#include "Tavi/Accel/AccPipelineCollect.h"
#include "Tavi/Audio/AudioPipelineCollect.h"
#include "Tavi/EventCollect/PreviewCollect.h"
#include "Tavi/EventCollect/ThumbnailCollect.h"
#include "Tavi/Gps/GpsPipelineCollect.h"
#include "Tavi/GstUtil/Log.h"
#include "Tavi/Other/OtherPipelineCollect.h"
#include "Tavi/Pipeline/PipelineManager.h"
#include "Tavi/PipelineCollect/KeyFrameGrid.h"
#include "Tavi/Video/PreviewPipelineElement.h"
#include "Tavi/Video/VideoPipelineCollect.h"

namespace Tavi::PipelineCollect {
namespace {

using Kbase::Pipeline::IPipelineElement;
using Pipeline::PipelineType;
using Milliseconds = Kbase::Util::IClock::Milliseconds;

constexpr Milliseconds PollPeriod{20};
constexpr Milliseconds AbortGrace{500};
constexpr std::chrono::seconds CollectLimit{120};
constexpr std::chrono::seconds CollectLimitCR{180};

struct StreamSource {
  PipelineCollectType type;
  PipelineType element;
};

/// The ring that each collector reads.
constexpr std::array<StreamSource, 8> StreamSources{{
    {PipelineCollectType::VideoCamera1, PipelineType::Camera0},
    {PipelineCollectType::VideoCamera0, PipelineType::Camera1},
    {PipelineCollectType::Audio, PipelineType::Audio},
    {PipelineCollectType::Gps, PipelineType::Gps},
    {PipelineCollectType::Acc, PipelineType::Acc},
    {PipelineCollectType::Other, PipelineType::Other},
    {PipelineCollectType::ThumbnailCamera1, PipelineType::Camera0},
    {PipelineCollectType::ThumbnailCamera0, PipelineType::Camera1},
}};

/// How much shorter than asked for a stream's window is: the slow sources end a second early, so that the event does
/// not wait for an entry of theirs that comes up to a second after everybody else's last one.
int ShortenedBySeconds(PipelineCollectType type, bool cr) {
  if (type == PipelineCollectType::Gps || type == PipelineCollectType::Other) return 1;
  return type == PipelineCollectType::Acc && cr ? 3 : 0;
}

/// Seconds before the event, from a request whose sign and size are the caller's business.
int AbsoluteSeconds(std::int32_t seconds) {
  constexpr std::int64_t Longest = 24 * 60 * 60;
  return static_cast<int>(std::min(std::abs(static_cast<std::int64_t>(seconds)), Longest));
}

/// How much later in nanoseconds what `second` wrote begins than what `first` wrote; 0 when one of them cannot tell.
std::int64_t DelayBetween(const PipelineCollect& first, const PipelineCollect& second) {
  const auto from = first.GetFirstTimestamp();
  const auto to = second.GetFirstTimestamp();
  return from && to ? static_cast<std::int64_t>(*to - *from) : 0;
}

/// The collector as what it is; null when there is none, or its thread hangs in its disk.
template <class Collector>
Collector* Finished(CollectBase* collector) {
  return collector != nullptr && !collector->IsRunning() ? dynamic_cast<Collector*>(collector) : nullptr;
}

}  // namespace

/// One collect's time: nobody else's meanwhile, and no flag of it is left behind.
class PipelineCollectManager::Turn {
 public:
  explicit Turn(PipelineCollectManager& manager) : m_manager(manager) {
    const std::lock_guard lock(manager.m_stateMutex);
    m_taken = !manager.m_collecting.exchange(true);
  }
  ~Turn() {
    if (!m_taken) return;
    const std::lock_guard lock(m_manager.m_stateMutex);
    m_manager.m_cancelled = false;
    m_manager.m_powerFailure = false;
    m_manager.m_collecting = false;
  }
  [[nodiscard]] bool IsTaken() const { return m_taken; }

  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

 private:
  PipelineCollectManager& m_manager;
  bool m_taken;
};

PipelineCollectManager::PipelineCollectManager(PipelineCollectManagerConfig& config)
    : m_config(config), m_clock(config.clock != nullptr ? *config.clock : Kbase::Util::IClock::Steady()) {
  if (m_config.pipelineManager != nullptr) CreateCollectors();
  Ksystem::FileUtils::Kdir(m_config.backupDir).Create();
}

PipelineCollectManager::~PipelineCollectManager() {
  // Its callback may still ask for an event, and look at this pointer.
  if (m_muxThread) m_muxThread->Wait();
  m_muxThread.reset();
}

template <class Collector, class... Arguments>
void PipelineCollectManager::Create(PipelineCollectType type, PipelineType source, Arguments... arguments) {
  const auto element = m_config.pipelineManager->ShareElement(source);
  if (!element) return;
  m_collectors[type] = std::make_unique<Collector>(element.get(), arguments..., m_config.cr);
  m_muxCollectors[type] = std::make_unique<Collector>(nullptr, arguments..., m_config.cr);
}

void PipelineCollectManager::CreateCollectors() {
  // Only camera 0 can be left out: camera 1 is what everything else is aligned to.
  if (m_config.withCamera0) {
    Create<Video::VideoPipelineCollect>(PipelineCollectType::VideoCamera1, PipelineType::Camera0, CameraType::Camera0);
  }
  Create<Video::VideoPipelineCollect>(PipelineCollectType::VideoCamera0, PipelineType::Camera1, CameraType::Camera1);
  if (m_config.withAudio) Create<Audio::AudioPipelineCollect>(PipelineCollectType::Audio, PipelineType::Audio);
  Create<Gps::GpsPipelineCollect>(PipelineCollectType::Gps, PipelineType::Gps);
  Create<Accel::AccPipelineCollect>(PipelineCollectType::Acc, PipelineType::Acc);
  Create<Other::OtherPipelineCollect>(PipelineCollectType::Other, PipelineType::Other);
  if (m_config.withCamera0) {
    Create<ThumbnailCollect>(PipelineCollectType::ThumbnailCamera1, PipelineType::Camera0, CameraType::Camera0);
  }
  Create<ThumbnailCollect>(PipelineCollectType::ThumbnailCamera0, PipelineType::Camera1, CameraType::Camera1);
  if (!m_config.cr) CreatePreviewCollector();
}

void PipelineCollectManager::CreatePreviewCollector() {
  auto* audio = GetStream(PipelineCollectType::Audio);
  const auto make = [&](Audio::AudioPipelineCollect* sound) {
    return std::make_unique<PreviewCollect>(nullptr, nullptr, sound, m_config.previewFlag, m_config.previewParam);
  };
  m_collectors[PipelineCollectType::Preview] = make(dynamic_cast<Audio::AudioPipelineCollect*>(audio));
  m_muxCollectors[PipelineCollectType::Preview] = make(nullptr);
  BindPreview();
}

void PipelineCollectManager::BindPreview() {
  auto* preview = dynamic_cast<PreviewCollect*>(GetCollectElement(PipelineCollectType::Preview));
  if (preview == nullptr) return;
  const auto camera0 = m_config.withCamera0 ? m_config.pipelineManager->ShareElement(PipelineType::Preview0) : nullptr;
  preview->Bind(camera0, m_config.pipelineManager->ShareElement(PipelineType::Preview1));
}

/// Takes the rings as the pipeline manager has them now. False when it has none of them any more.
bool PipelineCollectManager::BindElements() {
  bool anyRing = m_collectors.empty();
  for (const auto& source : StreamSources) {
    auto* collector = dynamic_cast<PipelineCollect*>(GetCollectElement(source.type));
    if (collector == nullptr) continue;
    const auto element = m_config.pipelineManager->ShareElement(source.element);
    collector->Bind(element);
    anyRing = anyRing || element;
  }
  BindPreview();
  return anyRing;
}

void PipelineCollectManager::Init(PipelineCollectInput& input) {
  for (const auto& [type, collector] : m_collectors) {
    if (type == PipelineCollectType::Preview && !input.withPreview) continue;
    const int shorter = std::min(ShortenedBySeconds(type, m_config.cr), AbsoluteSeconds(input.durationSeconds));
    const int duration = input.durationSeconds < 0 ? input.durationSeconds + shorter : input.durationSeconds - shorter;
    PipelineCollectConfig config{input.startSeconds, duration, input.outputDir};
    collector->Init(config);
  }
}

PipelineCollect* PipelineCollectManager::GetStream(PipelineCollectType type) const {
  return dynamic_cast<PipelineCollect*>(GetCollectElement(type));
}

void PipelineCollectManager::Sync(PipelineCollectInput& input) {
  const int seconds = AbsoluteSeconds(input.startSeconds);
  PipelineCollect* camera0 = GetStream(PipelineCollectType::VideoCamera0);
  PipelineCollect* camera1 = GetStream(PipelineCollectType::VideoCamera1);
  const auto seekStart = [seconds](PipelineCollect* camera, const char* name) {
    const auto ring = camera != nullptr ? camera->GetRing() : nullptr;
    if (!ring) return;
    Log::Info(fmt::format("Current frame {}: {}", name, ring->GetCurrentFrameId()));
    const int fps = static_cast<int>(ring->GetFps());
    camera->SetStartPos(ring->SeekBackKeyframe(fps * seconds, fps));
  };
  seekStart(camera0, "camera 0");
  seekStart(camera1, "camera 1");
  if (camera0 != nullptr && camera1 != nullptr) SyncCamera0ToCamera1(*camera0, *camera1, seconds);
  if (camera0 == nullptr && camera1 == nullptr) Log::Info("No video available");
  SyncSensors(seconds);
  SyncAudio(camera1 != nullptr ? camera1 : camera0, seconds);
}

void PipelineCollectManager::SyncSensors(int seconds) {
  for (const auto type : {PipelineCollectType::Gps, PipelineCollectType::Acc, PipelineCollectType::Other}) {
    PipelineCollect* sensor = GetStream(type);
    const auto ring = sensor != nullptr ? sensor->GetRing() : nullptr;
    if (ring)
      sensor->SetStartPos(ring->SeekBackKeyframe(static_cast<int>(static_cast<float>(seconds) * ring->GetFps()), 1));
  }
}

void PipelineCollectManager::SyncAudio(const PipelineCollect* camera, int seconds) {
  PipelineCollect* audio = GetStream(PipelineCollectType::Audio);
  const auto ring = audio != nullptr ? audio->GetRing() : nullptr;
  const auto reference = camera != nullptr ? camera->GetRing() : nullptr;
  if (!ring || !reference) return;
  unsigned int pos = 0;
  if (audio->SyncWithPipeline(reference.get(), static_cast<int>(camera->GetStartPos()),
                              static_cast<int>(static_cast<float>(seconds) * ring->GetFps()), pos)) {
    audio->SetStartPos(pos);
  }
}

void PipelineCollectManager::SyncCamera0ToCamera1(PipelineCollect& camera0, const PipelineCollect& camera1,
                                                  int seconds) {
  const auto ring = camera0.GetRing();
  const auto reference = camera1.GetRing();
  if (!ring || !reference) return;
  const auto fps = static_cast<unsigned int>(ring->GetFps());
  unsigned int pos = 0;
  if (camera0.SyncWithPipeline(reference.get(), static_cast<int>(camera1.GetStartPos()),
                               static_cast<int>(fps) * seconds, pos)) {
    camera0.SetStartPos(AlignToKeyFrame(*ring, pos, fps));
  }
}

void PipelineCollectManager::Start() {
  for (const auto& [type, collector] : m_collectors) {
    if (collector->IsArmed()) collector->IThread::Start();
  }
}

bool PipelineCollectManager::Running() const {
  return std::any_of(m_collectors.begin(), m_collectors.end(), [](const auto& c) { return c.second->IsRunning(); });
}

void PipelineCollectManager::CancelCollect(bool abort) {
  if (!m_collecting) return;
  m_cancelled = true;
  for (const auto& [type, collector] : m_collectors) {
    if (abort && collector->IsRunning()) {
      if (!collector->Abort()) {
        Log::Error(fmt::format("the collect of {} does not end: its disk does not answer", collector->GetPath()));
      }
    } else {
      collector->RequestStop();
    }
  }
}

bool PipelineCollectManager::Prepare(PipelineCollectInput& input) {
  if (Running()) {
    Log::Error("a collector of an earlier event still waits for its disk: the new request is refused");
    return false;
  }
  if (m_config.pipelineManager == nullptr || !BindElements()) {
    Log::Error("there is no acquisition to collect from: the request is refused");
    return false;
  }
  if (!input.outputDir.empty() && input.outputDir.back() != '/') input.outputDir += '/';
  if (!Ksystem::FileUtils::Kdir(input.outputDir).Create()) {
    Log::Error("cannot collect into " + input.outputDir + ": the directory cannot be created");
    return false;
  }
  return true;
}

bool PipelineCollectManager::Collect(PipelineCollectInput& input, PipelineCollectOutput& output) {
  return Collect(input, &output, nullptr, nullptr);
}

bool PipelineCollectManager::CollectAsync(PipelineCollectInput& input, CollectAsyncCallbackInterface* callback,
                                          void* userData) {
  return Collect(input, nullptr, callback, userData);
}

bool PipelineCollectManager::Collect(PipelineCollectInput& input, PipelineCollectOutput* output,
                                     CollectAsyncCallbackInterface* callback, void* userData) {
  PipelineCollectOutput own;
  PipelineCollectOutput& result = output != nullptr ? *output : own;
  {
    const Turn turn(*this);
    if (!turn.IsTaken()) {
      Log::Warning("a collect is running already: the new request is refused");
      return false;
    }
    result.eventTime = static_cast<std::int64_t>(std::time(nullptr));
    if (!Prepare(input)) return false;
    Init(input);
    Sync(input);
    Start();
    if (m_cancelled) {
      EndCancelledStart();
    } else {
      LogFreeSpace("before");
      WaitForCollectors();
      if (callback != nullptr && !m_powerFailure && !input.discard && CanMuxAsync()) {
        HandOver(callback, userData);
        return true;
      }
      Deliver(input, result);
    }
  }
  if (callback != nullptr) callback->CollectFinished(result, true, userData);
  return true;
}

/// The end of an event on the collecting thread.
void PipelineCollectManager::Deliver(const PipelineCollectInput& input, PipelineCollectOutput& output) {
  if (m_powerFailure) {
    SaveAll();
  } else if (input.discard) {
    DeleteAll();
  } else {
    Mux();
    // Power may have failed meanwhile: what was muxed is saved as it is.
    if (m_powerFailure) SaveAll();
    BuildOutput(output);
  }
  Reset();
  ClearCache();
  LogFreeSpace("after");
}

bool PipelineCollectManager::CanMuxAsync() const {
  const bool anyHangs = Running();
  return !anyHangs && m_muxCollectors.size() == m_collectors.size() &&
         (m_muxThread == nullptr || !m_muxThread->IsRunning());
}

void PipelineCollectManager::HandOver(CollectAsyncCallbackInterface* callback, void* userData) {
  for (const auto& [type, collector] : m_collectors) collector->CopyTo(m_muxCollectors.at(type).get());
  m_muxThread.reset();
  {
    // From here on PowerFailure reaches the event through the mux thread.
    const std::lock_guard lock(m_stateMutex);
    m_muxing = true;
    m_muxPowerFailure = m_powerFailure.load();
  }
  m_muxThread = std::make_unique<MuxAsyncThread>(m_config.cr ? "MUX-EVT-CR" : "MUX-EVT",
                                                 MuxAsyncParams{&m_muxCollectors, callback, userData, this}, *this);
  if (!m_muxThread->Start()) {
    MuxAsyncParams params{&m_muxCollectors, callback, userData, this};
    MuxAsync(params);
  }
  Reset();
}

void PipelineCollectManager::MuxAsync(MuxAsyncParams& params) {
  ClearCache();
  const CollectorMap& collectors = *params.collectors;
  Mux(Finished<Video::VideoPipelineCollect>(GetCollectElement(collectors, PipelineCollectType::VideoCamera1)),
      Finished<Video::VideoPipelineCollect>(GetCollectElement(collectors, PipelineCollectType::VideoCamera0)),
      Finished<Audio::AudioPipelineCollect>(GetCollectElement(collectors, PipelineCollectType::Audio)));
  PipelineCollectOutput output;
  output.eventTime = static_cast<std::int64_t>(std::time(nullptr));
  BuildOutput(collectors, output);
  if (IsMuxToBeSaved()) {
    Log::Info("[Power Failure]Making backup...");
    Backup(collectors, m_config.cr ? "mux-cr" : "mux");
    Log::Info("[Power Failure]Backup finished");
  }
  if (params.callback != nullptr) params.callback->CollectFinished(output, true, params.userData);
}

/// Ends the mux thread's turn: what fails from here on finds the event delivered.
bool PipelineCollectManager::IsMuxToBeSaved() {
  const std::lock_guard lock(m_stateMutex);
  m_muxing = false;
  return m_muxPowerFailure;
}

/// A cancel that came before or while the threads started may have been overwritten by their arming: they are told once
/// more, and end before anything of theirs is reset.
void PipelineCollectManager::EndCancelledStart() {
  CancelCollect(true);
  DeleteAll();
  Reset();
  ClearCache();
}

void PipelineCollectManager::WaitForCollectors() {
  const Milliseconds limit =
      m_config.limitMs > 0 ? Milliseconds(m_config.limitMs) : Milliseconds(m_config.cr ? CollectLimitCR : CollectLimit);
  const Kbase::Util::TimeMonitor monitor(m_clock);
  while (Running()) {
    m_clock.Sleep(PollPeriod);
    if (m_powerFailure) return;
    if (monitor.Elapsed() <= limit) continue;
    Log::Error(fmt::format("the collect has not ended within {} s and is aborted",
                           std::chrono::duration<double>(limit).count()));
    CancelCollect(true);
    m_clock.Sleep(AbortGrace);
    return;
  }
}

void PipelineCollectManager::LogFreeSpace(const char* when) const {
  Ksystem::DiskUtils::DiskBase disk(m_config.workDir);
  if (!disk.LoadDiskInfo()) return;
  Log::Info(fmt::format("Free space {}{}: {:.2f}MB from {}", when, m_config.cr ? " (CR)" : "", disk.GetFreeMB(),
                        m_config.workDir));
}

void PipelineCollectManager::Reset() {
  for (const auto& [type, collector] : m_collectors) {
    if (!collector->IsRunning()) collector->Reset();
  }
}

void PipelineCollectManager::DeleteAll() {
  for (const auto& [type, collector] : m_collectors) {
    if (!collector->IsRunning()) collector->DeletePath();
  }
}

void PipelineCollectManager::ClearCache() {
  if (!Ksystem::SysUtil::ClearCache()) Log::Warning("unable to clear the cache...");
}

void PipelineCollectManager::Mux() {
  Mux(Finished<Video::VideoPipelineCollect>(GetCollectElement(PipelineCollectType::VideoCamera1)),
      Finished<Video::VideoPipelineCollect>(GetCollectElement(PipelineCollectType::VideoCamera0)),
      Finished<Audio::AudioPipelineCollect>(GetCollectElement(PipelineCollectType::Audio)));
}

void PipelineCollectManager::Mux(Video::VideoPipelineCollect* camera1, Video::VideoPipelineCollect* camera0,
                                 Audio::AudioPipelineCollect* audio) {
  const bool withSound = audio != nullptr && audio->IsCollected() && !audio->GetPath().empty();
  for (Video::VideoPipelineCollect* camera : {camera1, camera0}) {
    if (camera == nullptr) continue;
    if (withSound) {
      camera->Mux(audio->GetPath(), DelayBetween(*camera, *audio));
    } else {
      camera->BuildMp4();
    }
  }
}

CollectBase* PipelineCollectManager::GetCollectElement(PipelineCollectType type) const {
  return GetCollectElement(m_collectors, type);
}

CollectBase* PipelineCollectManager::GetCollectElement(const CollectorMap& collectors, PipelineCollectType type) {
  const auto found = collectors.find(type);
  return found == collectors.end() ? nullptr : found->second.get();
}

void PipelineCollectManager::BuildOutput(PipelineCollectOutput& output) const {
  BuildOutput(m_collectors, output);
}

void PipelineCollectManager::BuildOutput(const CollectorMap& collectors, PipelineCollectOutput& output) {
  for (const auto& [type, collector] : collectors) {
    if (const auto* gps = Finished<Gps::GpsPipelineCollect>(collector.get())) output.maxSpeed = gps->GetMaxSpeed();
    if (const auto* acc = Finished<Accel::AccPipelineCollect>(collector.get())) output.maxG = acc->GetMaxG();
    const bool isThere = collector->IsCollected() && !collector->IsRunning();
    if (const auto* preview = dynamic_cast<const PreviewCollect*>(collector.get())) {
      output.previewSeconds = preview->GetLength();
      if (isThere) output.previewStill = preview->GetThumbnailPath();
    }
    if (!isThere) continue;
    output.AddOutput(type, collector->GetPath());
    const auto* stream = dynamic_cast<const PipelineCollect*>(collector.get());
    if (stream != nullptr && stream->GetWindow().entries != 0) output.windows[type] = stream->GetWindow();
  }
}

}  // namespace Tavi::PipelineCollect
