// Turns a collect request into a finished set of files.
#include "Tavi/EventCollect/PipelineCollectManager.h"

#include <chrono>
#include <ctime>
#include <utility>

#include <fmt/format.h>

#include "Kbase/Util/TimeMonitor.h"
#include "Ksystem/FileUtils/Kdir.h"
#include "Ksystem/SysUtil/ClearCache.h"
#include "Tavi/EventCollect/EventProducts.h"
#include "Tavi/EventCollect/StartSync.h"
#include "Tavi/EventCollect/WorkRoom.h"
#include "Tavi/GstUtil/Log.h"
#include "Tavi/Pipeline/PipelineManager.h"

namespace Tavi::PipelineCollect {
namespace {

using Pipeline::PipelineType;
using Milliseconds = Kbase::Util::IClock::Milliseconds;

constexpr Milliseconds PollPeriod{20};
constexpr Milliseconds AbortGrace{500};
constexpr std::chrono::seconds CollectLimit{120};
constexpr std::chrono::seconds CollectLimitCR{180};
/// How long an abort waits for the threads.
constexpr Milliseconds AbortLimit{2000};
/// How long collectors may take to write and sync their last entries when power fails.
constexpr Milliseconds SaveLimit{2000};
constexpr Milliseconds ShortPollPeriod{1};
/// How long the backup waits for the drivers.
constexpr Milliseconds StopLimit{1000};
/// The same where all but the last second is copied: what is left is the disk's work, not the processor's.
constexpr Milliseconds ShortStopLimit{50};
/// What a held window takes beyond its end, so that an entry of the end is in it also at a low rate.
constexpr std::chrono::seconds HoldGrace{3};

/// Seconds before the event, from a request whose sign and size are the caller's business.
int AbsoluteSeconds(std::int32_t seconds) {
  constexpr std::int64_t Longest = 24 * 60 * 60;
  return static_cast<int>(std::min(std::abs(static_cast<std::int64_t>(seconds)), Longest));
}

void LogHangingStop() {
  Log::Error("acquisition is not stopped yet: the event is saved all the same");
}

/// When the window ends.
std::chrono::steady_clock::time_point GetWindowEnd(const PipelineCollectInput& input) {
  const auto moment = input.care.moment.value_or(std::chrono::steady_clock::now());
  return moment + std::chrono::seconds(AbsoluteSeconds(input.durationSeconds) - AbsoluteSeconds(input.startSeconds));
}

std::shared_ptr<CopyAheadThread> TakeCopyAhead(const PipelineCollectManagerConfig& config) {
  if (config.copyAhead || !(config.copyAheadMBps > 0.0)) return config.copyAhead;
  return std::make_shared<CopyAheadThread>(config.cr ? "AHEAD-CR" : "AHEAD", config.backupDir, config.copyAheadMBps);
}

/// What keeps the copies for as long as somebody has it.
std::shared_ptr<void> MakeTicket(const std::shared_ptr<CopyAhead>& ahead) {
  return ahead ? std::shared_ptr<void>(ahead.get(), [ahead](void*) { ahead->Drop(); }) : nullptr;
}

}  // namespace

PipelineCollectManager::PipelineCollectManager(PipelineCollectManagerConfig& config)
    : m_config(config),
      m_clock(config.clock != nullptr ? *config.clock : Kbase::Util::IClock::Steady()),
      m_collectors(m_config, CollectorSet::Kind::Working),
      m_muxCollectors(m_config, CollectorSet::Kind::Twins),
      m_backup(config.backupDir),
      m_copyAhead(TakeCopyAhead(m_config)) {
  Ksystem::FileUtils::Kdir(m_config.backupDir).Create();
}

PipelineCollectManager::~PipelineCollectManager() {
  // Its callback may still ask for an event, and look at this pointer.
  if (m_muxThread) m_muxThread->Wait();
  m_muxThread.reset();
}

void PipelineCollectManager::Init(PipelineCollectInput& input) {
  m_collectors.Arm(input);
}

void PipelineCollectManager::Sync(PipelineCollectInput& input) {
  if (input.held) {
    m_collectors.SetHeld(*input.held);
    return;
  }
  const Rings rings = m_collectors.GetRings();
  m_collectors.SetStarts(StartSync(rings, AbsoluteSeconds(input.startSeconds), input.care).Find());
}

std::shared_ptr<HeldWindow> PipelineCollectManager::Hold(const PipelineCollectInput& input) const {
  if (m_config.pipelineManager == nullptr) return nullptr;
  const Rings rings = CollectorSet::ShareRings(m_config);
  if (rings.empty()) return nullptr;
  const Starts starts = StartSync(rings, AbsoluteSeconds(input.startSeconds), input.care).Find();
  auto held = std::make_shared<HeldWindow>(rings, starts, GetWindowEnd(input) + HoldGrace);
  if (input.withPreview && !m_config.cr) {
    const auto camera0 =
        m_config.withCamera0 ? m_config.pipelineManager->ShareElement(PipelineType::Preview0) : nullptr;
    held->HoldPreviews({camera0, m_config.pipelineManager->ShareElement(PipelineType::Preview1)});
  }
  return held;
}

void PipelineCollectManager::Start() {
  m_collectors.Start();
}

bool PipelineCollectManager::Running() const {
  return m_collectors.Running();
}

void PipelineCollectManager::CancelCollect(bool abort) {
  const std::uint64_t turn = m_state.Cancel([this, abort] { m_collectors.RequestStop(abort); });
  if (abort && turn != 0) AwaitAborted(turn);
}

/// Waits, within a bound, until the threads of that collect have ended.
void PipelineCollectManager::AwaitAborted(std::uint64_t turn) const {
  const auto isPresent = [&] {
    const auto state = m_state.Read();
    return state.collecting && state.turn == turn;
  };
  const Kbase::Util::TimeMonitor monitor;
  while (isPresent() && Running()) {
    if (monitor.Elapsed() >= AbortLimit) return m_collectors.LogHanging("cannot be ended");
    Kbase::Util::IClock::Steady().Sleep(ShortPollPeriod);
  }
}

bool PipelineCollectManager::Prepare(PipelineCollectInput& input) {
  if (Running()) {
    Log::Error("a collector of an earlier event still waits for its disk: the new request is refused");
    return false;
  }
  // A window that was held is there also when acquisition has ended.
  if (m_config.pipelineManager == nullptr || (!m_collectors.Bind() && !input.held)) {
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
    const CollectTurn turn(m_state);
    if (!turn.IsTaken()) {
      Log::Warning("a collect is running already: the new request is refused");
      return false;
    }
    result.backup.reset();
    result.eventTime = static_cast<std::int64_t>(std::time(nullptr));
    if (!Prepare(input)) return false;
    Init(input);
    Sync(input);
    Start();
    if (m_state.Read().cancelled) {
      EndCancelledStart();
    } else {
      BeginCopyAhead(input);
      LogSpace("before");
      CompareRoom(input.outputDir,
                  EstimateWorkBytes(m_config.pipelineManager->GetConfig(), AbsoluteSeconds(input.durationSeconds),
                                    input.withPreview && !m_config.cr));
      WaitForCollectors(input);
      if (m_ahead && !m_state.Read().powerFailure) m_ahead->SetFinal();
      if (callback != nullptr && !m_state.Read().powerFailure && !input.discard && CanMuxAsync()) {
        HandOver(input, callback, userData);
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
  if (m_state.Read().powerFailure) {
    SaveAll(input);
  } else if (input.discard) {
    DeleteAll();
  } else {
    Mux();
    // Power may have failed meanwhile: what was muxed is saved as it is.
    if (m_state.Read().powerFailure) SaveAll(input);
    BuildOutput(output);
    output.backup = MakeTicket(m_ahead);
  }
  m_ahead.reset();
  Reset();
  ClearCache();
  LogSpace("after");
}

bool PipelineCollectManager::CanMuxAsync() const {
  return !Running() && (m_muxThread == nullptr || !m_muxThread->IsRunning());
}

void PipelineCollectManager::HandOver(const PipelineCollectInput& input, CollectAsyncCallbackInterface* callback,
                                      void* userData) {
  m_collectors.CopyTo(m_muxCollectors);
  m_muxThread.reset();
  m_state.BeginMux();
  MuxAsyncParams params{&m_muxCollectors.GetMap(),      callback, userData, this, GetBackupBase(input, "mux"),
                        std::exchange(m_ahead, nullptr)};
  m_muxThread = std::make_unique<MuxAsyncThread>(m_config.cr ? "MUX-EVT-CR" : "MUX-EVT", params, *this);
  if (!m_muxThread->Start()) MuxAsync(params);
  Reset();
}

void PipelineCollectManager::MuxAsync(MuxAsyncParams& params) {
  ClearCache();
  const EventProducts products(*params.collectors, m_config.keepStreams);
  products.Mux();
  PipelineCollectOutput output;
  output.eventTime = static_cast<std::int64_t>(std::time(nullptr));
  products.BuildOutput(output);
  output.backup = MakeTicket(params.ahead);
  if (m_state.EndMux()) {
    Log::Info("[Power Failure]Making backup...");
    // What could not be saved has its line; the files themselves stay with the callback either way.
    static_cast<void>(m_backup.Save(*params.collectors, params.backupBase, params.ahead.get()));
    Log::Info("[Power Failure]Backup finished");
  }
  if (params.callback != nullptr) params.callback->CollectFinished(output, true, params.userData);
}

/// A cancel that came before or while the threads started may have been overwritten by their arming: they are told once
/// more, and end before anything of theirs is reset.
void PipelineCollectManager::EndCancelledStart() {
  CancelCollect(true);
  DeleteAll();
  Reset();
  ClearCache();
}

void PipelineCollectManager::WaitForCollectors(const PipelineCollectInput& input) {
  const Milliseconds limit =
      m_config.limitMs > 0 ? Milliseconds(m_config.limitMs) : Milliseconds(m_config.cr ? CollectLimitCR : CollectLimit);
  const Kbase::Util::TimeMonitor monitor(m_clock);
  const auto windowEnd = GetWindowEnd(input);
  while (Running()) {
    m_clock.Sleep(PollPeriod);
    if (m_state.Read().powerFailure) return;
    if (std::chrono::steady_clock::now() > windowEnd && m_collectors.WaitsForSilentOnly()) m_collectors.EndInSilence();
    if (monitor.Elapsed() <= limit) continue;
    Log::Error(fmt::format("the collect has not ended within {} s and is aborted",
                           std::chrono::duration<double>(limit).count()));
    CancelCollect(true);
    m_clock.Sleep(AbortGrace);
    return;
  }
}

void PipelineCollectManager::LogSpace(const char* when) const {
  LogFreeSpace(m_config.workDir, std::string(when) + (m_config.cr ? " (CR)" : ""));
}

void PipelineCollectManager::PowerFailure() {
  // A camera that dies with the power must not restart the unit before the event is saved.
  if (m_config.pipelineManager != nullptr) m_config.pipelineManager->EndSupervision();
  m_state.FailPower([this] { m_collectors.RequestSave(); });
}

std::string PipelineCollectManager::GetBackupBase(const PipelineCollectInput& input, const char* otherwise) const {
  return input.name.empty() ? std::string(otherwise) + (m_config.cr ? "-cr" : "") : input.name;
}

/// What is to be discarded is not worth it.
void PipelineCollectManager::BeginCopyAhead(const PipelineCollectInput& input) {
  if (m_copyAhead && !input.discard) {
    m_ahead = m_copyAhead->Begin(m_collectors.GetMap(), GetBackupBase(input, "event"));
  }
}

void PipelineCollectManager::SaveAll(const PipelineCollectInput& input) {
  EndCollectors();
  Log::Info("[Power Failure]Stopping the aquisition...");
  const bool isCopiedAhead = m_ahead != nullptr;
  const bool isStopped = StopAcquisition(isCopiedAhead ? ShortStopLimit : StopLimit);
  if (!isStopped && !isCopiedAhead) LogHangingStop();
  Log::Info("[Power Failure]Making backup...");
  const bool isSaved = m_backup.Save(m_collectors.GetMap(), GetBackupBase(input, "event"), m_ahead.get());
  Log::Info("[Power Failure]Backup finished");
  // Should the machine outlive this, the event must not be there twice.
  if (isSaved) DeleteAll();
  if (!isStopped && isCopiedAhead && !StopAcquisition(StopLimit)) LogHangingStop();
}

/// Nobody reads the rings any more, so the backup need not wait for a driver that does not answer.
bool PipelineCollectManager::StopAcquisition(Milliseconds limit) {
  if (m_stop == nullptr) m_stop = std::make_unique<AcquisitionStop>(*m_config.pipelineManager);
  return m_stop->StopWithin(limit);
}

/// Nothing may read a ring any more when acquisition stops. Those that hang in their disk are left behind: their files
/// are saved as they are.
void PipelineCollectManager::EndCollectors() {
  m_collectors.RequestSave();
  const Kbase::Util::TimeMonitor monitor;
  while (Running() && monitor.Elapsed() < SaveLimit) m_clock.Sleep(ShortPollPeriod);
  m_collectors.LogHanging("cannot be finished");
}

void PipelineCollectManager::Reset() {
  m_collectors.Reset();
}

void PipelineCollectManager::DeleteAll() {
  m_collectors.DeleteAll();
}

void PipelineCollectManager::ClearCache() {
  if (!Ksystem::SysUtil::ClearCache()) Log::Warning("unable to clear the cache...");
}

void PipelineCollectManager::Mux() {
  EventProducts(m_collectors.GetMap(), m_config.keepStreams).Mux();
}

void PipelineCollectManager::Mux(Video::VideoPipelineCollect* camera1, Video::VideoPipelineCollect* camera0,
                                 Audio::AudioPipelineCollect* audio) {
  EventProducts::Mux(camera1, camera0, audio);
}

CollectBase* PipelineCollectManager::GetCollectElement(PipelineCollectType type) const {
  return m_collectors.Get(type);
}

CollectBase* PipelineCollectManager::GetCollectElement(const CollectorMap& collectors, PipelineCollectType type) {
  return CollectorSet::Get(collectors, type);
}

void PipelineCollectManager::BuildOutput(PipelineCollectOutput& output) const {
  BuildOutput(m_collectors.GetMap(), output);
}

void PipelineCollectManager::BuildOutput(const CollectorMap& collectors, PipelineCollectOutput& output) {
  EventProducts(collectors).BuildOutput(output);
}

}  // namespace Tavi::PipelineCollect
