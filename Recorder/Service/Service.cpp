// The recorder as a service: its life from start to end.
#include "Recorder/Service/Service.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <thread>
#include <utility>

#include "EventStore/EventName.h"
#include "Ksystem/SysUtil/Group.h"
#include "Recorder/Service/EventRecord.h"
#include "Recorder/Service/MissingParts.h"
#include "Tavi/EventCollect/CopyAheadThread.h"
#include "Tavi/GstUtil/Log.h"

namespace Tavi::Recorder {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds MaintainPeriod{10};
constexpr std::chrono::milliseconds LongestNap{1000};
constexpr std::chrono::milliseconds EndPoll{10};
/// sysexits.h, EX_TEMPFAIL. Should the machine outlive the failure, the service manager starts the recorder again.
constexpr int PowerFailedExitStatus = 75;

Triggers::TriggerWatch::Settings BuildTriggers(const TriggerSettings& settings) {
  const auto& acceleration = settings.acceleration;
  return {{acceleration.thresholdG, acceleration.holdMs, acceleration.rearmSeconds},
          settings.lowSpeed.enabled ? settings.lowSpeed.minSpeedKnots : 0.0};
}

/// As the rest of the log has them, see DescribeCameras: a name says more than a number, and no number the opposite.
EventStore::CameraNames NameCamerasOfLog(EventStore::CameraNames names) {
  if (names[0].empty()) names[0] = "camera1";
  if (names[1].empty()) names[1] = "camera0";
  return names;
}

std::string DescribeCameras(const Settings& settings) {
  const auto& pipeline = settings.pipeline;
  const auto called = [&settings](std::size_t camera) {
    const std::string& name = settings.cameraNames.at(camera);
    return name.empty() ? name : ", " + name;
  };
  return fmt::format("in this log camera0 is the settings' camera1 ({}{}) and camera1 is the settings' camera0 ({}{})",
                     pipeline.camera1.device, called(1), pipeline.camera0.device, called(0));
}

}  // namespace

Service::Service(const Settings& settings)
    : m_settings(settings),
      m_archive(settings.storage, m_timeOfDay),
      m_queue(static_cast<std::size_t>(settings.events.queueLength)) {}

Service::~Service() = default;

bool Service::Open(std::string& problem) {
  // No reason not to record: without the group fewer may read and command.
  const std::string noGroup = CheckGroups(m_settings);
  if (!noGroup.empty()) Log::Warning(noGroup + "; until the next start it is as if none were named");
  if (!m_archive.Open(problem)) return false;
  m_pipeline = std::make_unique<Pipeline::PipelineManager>(m_settings.pipeline);
  const auto getRing = [this](Pipeline::PipelineType type) { return m_pipeline->ShareElement(type); };
  m_health = std::make_unique<HealthThread>(getRing, m_serviceManager, [this] {
    m_queue.FollowWindows();
    FollowReceiver();
  });
  OpenTakers();
  if (m_settings.storage.pages) {
    m_pages = std::make_unique<PageThread>(m_settings.storage.eventsDir, [this] { return m_powerFailed.load(); });
  }
  m_live = std::make_unique<Live::LiveServer>(getRing);
  m_control = std::make_unique<ControlServer>(*this);
  if (const auto group = Ksystem::SysUtil::FindGroup(m_settings.control.group)) m_control->ServeGroup(*group);
  return m_control->Open(m_settings.control.socket, problem);
}

void Service::OpenTakers() {
  PipelineCollect::PipelineCollectManagerConfig config;
  config.pipelineManager = m_pipeline.get();
  config.workDir = m_settings.storage.workDir;
  config.backupDir = m_settings.storage.backupDir;
  config.keepStreams = true;
  if (m_settings.storage.copyAhead) {
    config.copyAhead =
        std::make_shared<PipelineCollect::CopyAheadThread>("AHEAD", config.backupDir, m_settings.storage.copyAheadMBps);
  }
  for (std::size_t taker = 0; taker < m_queue.GetTakers(); ++taker) {
    config.cr = taker == EventQueue::Second;
    m_takers.push_back(std::make_unique<EventTaker>(
        taker, config, m_queue, m_archive, [this] { return IsEnding(); }, [this] { return !m_started; }));
  }
}

int Service::Run() {
  Log::Info(DescribeCameras(m_settings));
  m_archive.Recover(m_settings.pipeline, m_settings.cameraNames);
  m_disk.Start();
  if (m_pages) m_pages->Start();
  m_health->Start();
  m_live->Start();
  for (const auto& taker : m_takers) taker->Start();
  m_ignition = true;
  if (!IsEnding()) m_pipeline->RunIgnitionStart();
  m_started = true;
  m_serviceManager.TellReady();
  TellState("recording");
  if (m_settings.triggers.acceleration.enabled) {
    m_triggers = std::make_unique<Triggers::TriggerWatch>(
        BuildTriggers(m_settings.triggers),
        [this](Pipeline::PipelineType type) { return m_pipeline->ShareElement(type); },
        [this](const std::string& reason) { OrderByTrigger(reason); });
    m_triggers->Start();
  }
  auto maintained = Clock::now();
  while (!IsEnding()) {
    RunTasks();
    if (Clock::now() - maintained < MaintainPeriod) continue;
    m_archive.Maintain();
    maintained = Clock::now();
  }
  End();
  return m_powerFailed ? PowerFailedExitStatus : 0;
}

void Service::Stop() {
  m_stopped = true;
  if (m_pipeline) m_pipeline->EndSupervision();
  m_wake.notify_all();
}

void Service::PowerFail(const std::string& why) {
  if (!m_powerFailed.exchange(true)) Log::Warning(why + ": running events are saved, then recording ends");
  if (m_pipeline) m_pipeline->EndSupervision();
  FailTakers();
  m_wake.notify_all();
}

void Service::FailTakers() {
  for (const auto& taker : m_takers) taker->PowerFailure();
}

void Service::Post(Task task) {
  {
    const std::lock_guard lock(m_mutex);
    m_tasks.push_back(std::move(task));
  }
  m_wake.notify_all();
}

/// Waits for tasks, not for long, and runs them.
void Service::RunTasks() {
  std::deque<Task> tasks;
  {
    std::unique_lock lock(m_mutex);
    m_wake.wait_for(lock, LongestNap, [this] { return IsEnding() || !m_tasks.empty(); });
    tasks.swap(m_tasks);
  }
  for (const auto& task : tasks) task();
}

void Service::TellState(const char* state) {
  m_state = state;
  m_serviceManager.TellStatus(state);
}

/// What fails in between, while this waits for a disk, fails when nothing is collected any more.
void Service::End() {
  m_serviceManager.TellStopping();
  TellState("stopping");
  m_triggers.reset();
  m_live->Stop();
  m_queue.Close();
  m_pipeline->RunIgnitionOff();
  // A running event gets what the rings hold when they are taken away, one that waits what is held of it; power that
  // fails is told to each.
  const auto isRunning = [](const auto& taker) { return taker->IsRunning(); };
  while (m_powerFailed && std::any_of(m_takers.begin(), m_takers.end(), isRunning)) {
    FailTakers();
    std::this_thread::sleep_for(EndPoll);
  }
  // Before what may wait for a driver, and once more with what ends now.
  if (m_powerFailed) m_archive.SecureWaiting();
  m_pipeline->RunSigInt();
  for (const auto& taker : m_takers) taker->Wait();
  m_archive.SecureWaiting();
  m_control.reset();
  m_disk.Finish();
  m_health->Stop();
  m_pages.reset();
  Log::Info("the recorder has ended");
}

/// An event of now, as the settings have it.
EventOrder Service::MakeOrder() {
  EventOrder order;
  order.id = m_archive.NewId();
  order.beforeSeconds = -m_settings.events.startSeconds;
  order.durationSeconds = m_settings.events.durationSeconds;
  order.withPreview = m_settings.events.withPreview;
  order.moment = Moment::Now();
  order.accScaleG = m_settings.pipeline.acc.scale;
  order.cameraNames = m_settings.cameraNames;
  order.position = ReadPosition(*m_pipeline);
  return order;
}

std::string Service::Order(EventOrder order) {
  const std::string what = "event " + order.id + " (" + order.trigger + ")";
  if (IsEnding()) return "the recorder is ending";
  auto request = DescribeRequest(order);
  EventStore::SetTime(request, m_timeOfDay.Tell(order.moment));
  const bool keep = order.keep;
  const Moment moment = order.moment;
  order.held = m_takers.front()->Hold(order);
  const auto held = order.held;
  order.done = [this, done = std::move(order.done)](const EventResult& result) {
    NoteResult(result);
    if (done) done(result);
  };
  if (!m_queue.Push(order)) {
    ++m_refused;
    Log::Error(what + " is refused: as many events are under way as may");
    return "too many events are under way already: try again when one is complete";
  }
  Log::Info(what + " is ordered");
  m_disk.Post([this, request, keep, moment] { m_archive.Announce(request, keep, moment); });
  if (held) m_disk.Post([held] { held->HoldStills(); });
  return {};
}

void Service::NoteResult(const EventResult& result) {
  const std::string missing = DescribeMissing(result.missing, NameCamerasOfLog(m_settings.cameraNames));
  if (!missing.empty()) Log::Warning("event " + result.id + ": " + missing);
  const std::lock_guard lock(m_mutex);
  m_lastResult = result;
}

void Service::FollowReceiver() {
  const auto reading = ReadReceiverTime(*m_pipeline);
  if (!reading || !m_timeOfDay.Learn(*reading)) return;
  const double ahead = m_timeOfDay.Tell(Moment::Now()).systemAheadSeconds.value_or(0.0);
  Log::Info(fmt::format("events have the receiver's time from now on: the system's clock is {:.1f} s {} it",
                        std::fabs(ahead), ahead < 0.0 ? "behind" : "ahead of"));
  m_disk.Post([this] { m_archive.PlaceAnnounced(); });
}

void Service::OrderByTrigger(const std::string& reason) {
  EventOrder order = MakeOrder();
  order.trigger = "acceleration";
  order.label = reason;
  Order(std::move(order));
}

}  // namespace Tavi::Recorder
