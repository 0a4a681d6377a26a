// The recorder as a service: acquisition, control socket, triggers, events to persistent storage.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Control/ControlHandler.h"
#include "Control/ControlServer.h"
#include "Control/Protocol.h"
#include "Recorder/Health/Health.h"
#include "Recorder/Live/LiveServer.h"
#include "Recorder/Service/EventArchive.h"
#include "Recorder/Service/EventQueue.h"
#include "Recorder/Service/EventTaker.h"
#include "Recorder/Service/HealthThread.h"
#include "Recorder/Service/PageThread.h"
#include "Recorder/Service/ServiceManager.h"
#include "Recorder/Service/TaskThread.h"
#include "Recorder/Service/TimeOfDay.h"
#include "Recorder/Settings/Settings.h"
#include "Recorder/Triggers/TriggerWatch.h"
#include "Tavi/Pipeline/PipelineManager.h"

namespace Tavi::Recorder {

/// Runs on the thread that calls Run, which drives the ignition and does what waits for disks. Stop and PowerFail may
/// be called from any other thread, as often as they like.
class Service final : public ControlHandler {
 public:
  explicit Service(const Settings& settings);
  ~Service() override;

  /// Takes directories and socket. False, with one sentence in `problem`, when one cannot be had: nothing has started.
  [[nodiscard]] bool Open(std::string& problem);
  /// Records until Stop or PowerFail. Exit status.
  int Run();
  /// The interrupt: events under way end with what the rings hold, and are saved.
  void Stop();
  /// Power goes, or the unit is about to be restarted: events under way are saved for the next start. `why` begins the
  /// log's line.
  void PowerFail(const std::string& why);

 private:
  using Task = std::function<void()>;

  void Handle(const nlohmann::ordered_json& request, Reply reply) override;
  void HandleEvent(const nlohmann::ordered_json& request, const Reply& reply);
  void HandleIgnition(const nlohmann::ordered_json& request, const Reply& reply);
  void HandleProtect(const nlohmann::ordered_json& request, const Reply& reply);
  void HandleRemove(const nlohmann::ordered_json& request, const Reply& reply);
  void HandleLabel(const nlohmann::ordered_json& request, const Reply& reply);
  void HandleLive(const nlohmann::ordered_json& request, const Reply& reply);
  void ListEvents(const Reply& reply) const;
  [[nodiscard]] nlohmann::ordered_json DescribeStatus() const;
  [[nodiscard]] nlohmann::ordered_json DescribeClock(const Moment& now) const;
  [[nodiscard]] std::string WriteMetrics() const;
  [[nodiscard]] std::vector<SourceHealth> ReadHealth() const;

  /// Puts the event in the queue. Empty, or one sentence why not; `done` is then not called.
  std::string Order(EventOrder order);
  [[nodiscard]] EventOrder MakeOrder();
  void OrderByTrigger(const std::string& reason);
  void Post(Task task);
  void RunTasks();
  void TellState(const char* state);
  void OpenTakers();
  void FailTakers();
  void End();
  [[nodiscard]] bool IsEnding() const { return m_stopped || m_powerFailed; }
  void NoteResult(const EventResult& result);
  void FollowReceiver();

  const Settings m_settings;
  const ServiceManager m_serviceManager;
  const std::chrono::steady_clock::time_point m_startedAt = std::chrono::steady_clock::now();
  std::atomic<bool> m_stopped{false};
  std::atomic<bool> m_powerFailed{false};
  std::atomic<bool> m_ignition{false};
  /// The sources have had their time to begin.
  std::atomic<bool> m_started{false};
  std::atomic<const char*> m_state{"starting"};
  std::atomic<std::uint64_t> m_refused{0};
  TimeOfDay m_timeOfDay;
  EventArchive m_archive;
  EventQueue m_queue;
  std::unique_ptr<Pipeline::PipelineManager> m_pipeline;
  std::unique_ptr<HealthThread> m_health;
  /// Notes requests down, looks at the disk for clients: none of it waits for the ignition.
  TaskThread m_disk{"DISK"};
  /// Null without pages.
  std::unique_ptr<PageThread> m_pages;
  /// By their numbers in the queue.
  std::vector<std::unique_ptr<EventTaker>> m_takers;
  std::unique_ptr<Triggers::TriggerWatch> m_triggers;
  /// Outlives the control socket, which hands clients over to it.
  std::unique_ptr<Live::LiveServer> m_live;
  std::unique_ptr<ControlServer> m_control;
  /// Of the event that was settled last; none before. Under the mutex.
  std::optional<EventResult> m_lastResult;
  mutable std::mutex m_mutex;
  std::condition_variable m_wake;
  std::deque<Task> m_tasks;
};

}  // namespace Tavi::Recorder
