// The program's work: what is to be said goes to the broker.
#pragma once

#include <atomic>
#include <chrono>
#include <optional>
#include <random>
#include <set>
#include <string>

#include "EventStore/EventList.h"
#include "Fleet/Mqtt/Broker.h"
#include "Fleet/Mqtt/Outbox.h"
#include "Fleet/Mqtt/RecorderStatus.h"
#include "Fleet/Mqtt/Settings.h"

namespace Tavi::Mqtt {

/// Keeps the connection, and publishes events one after another, each until the broker has acknowledged it, and health
/// at its pace. One event is in memory at a time. Thread-bound; everything happens within Run.
class Publisher {
 public:
  Publisher(Settings settings, std::string password);

  /// False, with one sentence in `problem`, when it cannot be known which events were acknowledged.
  [[nodiscard]] bool Open(std::string& problem);
  /// Until `isStopping`, which is looked at once a second and when a signal comes. Says goodbye to the broker.
  void Run(const std::atomic<bool>& isStopping);

 private:
  using Clock = std::chrono::steady_clock;

  /// An event on its way: gone when all its messages are acknowledged.
  struct InFlight {
    std::string name;
    std::set<int> ids;
    Clock::time_point deadline;
  };

  void KeepConnected(Clock::time_point now);
  void Greet(Clock::time_point now);
  void NoteLoss(Clock::time_point now);
  void AskDirectory(Clock::time_point now);
  void TakeAcknowledgements(Clock::time_point now);
  void Refused(const std::string& why, Clock::time_point now);
  void PublishNext(Clock::time_point now);
  [[nodiscard]] bool SendEvent(const EventStore::EventEntry& entry, Clock::time_point now);
  void PublishHealth(Clock::time_point now);
  void Leave();
  [[nodiscard]] std::chrono::milliseconds ChooseNap(Clock::time_point now) const;
  [[nodiscard]] std::chrono::milliseconds Spread(std::chrono::milliseconds pause);

  const Settings m_settings;
  Broker m_broker;
  Outbox m_outbox;
  std::mt19937 m_random{std::random_device()()};

  bool m_wasConnected = false;
  std::string m_toldProblem;
  std::chrono::milliseconds m_pause;
  Clock::time_point m_connectAt;
  Clock::time_point m_connectedAt;

  Clock::time_point m_healthAt;
  Clock::time_point m_askAt;
  /// The newest event's, as long as it is the newest.
  std::string m_newestName;
  std::string m_newestTime;

  std::optional<InFlight> m_inFlight;
  /// After a refusal nothing is published before this.
  Clock::time_point m_publishAt;
  std::chrono::milliseconds m_refusalPause;
  bool m_isRefusalTold = false;
};

}  // namespace Tavi::Mqtt
