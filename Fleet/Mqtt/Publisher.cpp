// The program's work: what is to be said goes to the broker.
#include "Fleet/Mqtt/Publisher.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "EventStore/EventDescription.h"
#include "EventStore/EventName.h"
#include "EventStore/Storage.h"
#include "Fleet/Mqtt/Log.h"
#include "Fleet/Mqtt/Payloads.h"

namespace Tavi::Mqtt {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds FirstPause{1000};
/// A connection that lasts so long was a good one.
constexpr seconds Lasting{10};
/// How long the broker may take to acknowledge an event; a slow modem brings a description within seconds.
constexpr seconds AcknowledgeTimeout{60};
constexpr milliseconds FirstRefusalPause{2000};
constexpr milliseconds LongestRefusalPause{300'000};
constexpr seconds AskEvery{5};
constexpr milliseconds LongestNap{1000};
/// For the last words before the end.
constexpr seconds LeaveTimeout{2};
/// What a description has at most.
constexpr std::size_t LargestDescription = std::size_t{1} << 20;

std::int64_t GetUnixTimeMs() {
  return std::chrono::duration_cast<milliseconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

}  // namespace

Publisher::Publisher(Settings settings, std::string password)
    : m_settings(std::move(settings)),
      m_broker(m_settings, std::move(password)),
      m_outbox(m_settings.stateFile),
      m_pause(FirstPause),
      m_refusalPause(FirstRefusalPause) {}

bool Publisher::Open(std::string& problem) {
  if (!m_settings.eventsDir.empty()) m_outbox.SetDirectory(m_settings.eventsDir);
  return m_outbox.Open(m_settings.earlierEvents, problem);
}

void Publisher::Run(const std::atomic<bool>& isStopping) {
  while (!isStopping) {
    const auto now = Clock::now();
    // Before a connection that has broken is noticed: what it brought counts.
    TakeAcknowledgements(now);
    AskDirectory(now);
    m_outbox.Look(now);
    KeepConnected(now);
    if (m_broker.GetState() == Broker::State::Connected && now >= m_healthAt) PublishHealth(now);
    PublishNext(now);
    m_broker.Turn(ChooseNap(now));
  }
  Leave();
}

void Publisher::KeepConnected(Clock::time_point now) {
  const auto state = m_broker.GetState();
  if (state == Broker::State::Connected && !std::exchange(m_wasConnected, true)) Greet(now);
  if (state != Broker::State::Apart) return;
  if (std::exchange(m_wasConnected, false) || !m_broker.GetProblem().empty()) NoteLoss(now);
  if (now >= m_connectAt) {
    m_connectAt = Clock::time_point::max();
    m_broker.Connect();
  }
}

void Publisher::Greet(Clock::time_point now) {
  m_connectedAt = now;
  m_toldProblem.clear();
  Log::Info(fmt::format("connected to the broker at {}:{}; {} events to publish", m_settings.broker.host,
                        m_settings.broker.port, m_outbox.GetWaiting()));
  int ignored = 0;
  m_broker.Publish({BuildTopic(m_settings, AvailabilityTopic), Online, 1, true}, ignored);
  if (m_settings.discovery) {
    for (const auto& message : BuildDiscovery(m_settings)) m_broker.Publish(message, ignored);
  }
  m_healthAt = now;
}

void Publisher::NoteLoss(Clock::time_point now) {
  if (m_connectAt != Clock::time_point::max()) return;
  if (m_inFlight)
    m_outbox.Fail(m_inFlight->name, "the connection broke each time: " + m_broker.GetProblem(), false, now);
  m_inFlight.reset();
  if (m_connectedAt != Clock::time_point() && now - m_connectedAt >= Lasting) m_pause = FirstPause;
  m_connectedAt = {};
  m_connectAt = now + Spread(m_pause);
  m_pause = std::min<milliseconds>(2 * m_pause, seconds(m_settings.broker.longestPauseSeconds));
  if (m_broker.GetProblem() == m_toldProblem) return;
  m_toldProblem = m_broker.GetProblem();
  Log::Warning(fmt::format("the broker at {}:{} is away: {}; tried again until it is there", m_settings.broker.host,
                           m_settings.broker.port, m_toldProblem));
}

/// Between half of it and all: thousands of units that lost one broker do not come back in one moment.
milliseconds Publisher::Spread(milliseconds pause) {
  return milliseconds(std::uniform_int_distribution<std::int64_t>(pause.count() / 2, pause.count())(m_random));
}

void Publisher::AskDirectory(Clock::time_point now) {
  if (!m_settings.eventsDir.empty() || m_outbox.HasDirectory() || now < m_askAt) return;
  m_askAt = now + AskEvery;
  const std::string directory = GetEventsDirectory(AskRecorder(m_settings.controlSocket));
  if (!directory.empty()) m_outbox.SetDirectory(directory);
}

void Publisher::TakeAcknowledgements(Clock::time_point now) {
  for (const auto& acknowledgement : m_broker.TakeAcknowledgements()) {
    if (!m_inFlight || m_inFlight->ids.erase(acknowledgement.id) == 0) continue;
    if (!acknowledgement.refusal.empty()) {
      Refused(acknowledgement.refusal, now);
    } else if (m_inFlight->ids.empty()) {
      m_outbox.Acknowledge(m_inFlight->name);
      m_inFlight.reset();
      m_isRefusalTold = false;
      m_refusalPause = FirstRefusalPause;
      m_pause = FirstPause;
    }
  }
  if (m_inFlight && now > m_inFlight->deadline) m_broker.Drop("it does not acknowledge an event");
}

void Publisher::Refused(const std::string& why, Clock::time_point now) {
  m_outbox.Fail(m_inFlight->name, "the broker refuses it: " + why, false, now);
  m_inFlight.reset();
  m_publishAt = now + m_refusalPause;
  m_refusalPause = std::min(2 * m_refusalPause, LongestRefusalPause);
  if (std::exchange(m_isRefusalTold, true)) return;
  Log::Warning(fmt::format("the broker refuses an event: {}; tried again until it takes it", why));
}

void Publisher::PublishNext(Clock::time_point now) {
  if (m_inFlight || now < m_publishAt) return;
  while (m_broker.GetState() == Broker::State::Connected) {
    const auto* next = m_outbox.GetNext(now);
    if (next == nullptr || SendEvent(EventStore::EventEntry(*next), now)) return;
  }
}

/// False when another event may be tried at once.
bool Publisher::SendEvent(const EventStore::EventEntry& entry, Clock::time_point now) {
  const std::string eventDir = m_outbox.GetPath(entry);
  std::string description;
  std::string problem;
  const std::string path = eventDir + "/" + EventStore::EventJsonName;
  if (!EventStore::ReadSmallFile(path, LargestDescription, description, problem)) {
    m_outbox.Fail(entry.name, problem, true, now);
    return false;
  }
  const std::string summary = BuildSummary(m_settings, entry, eventDir, description);
  InFlight inFlight{entry.name, {}, now + AcknowledgeTimeout};
  for (const auto& message : {Message{BuildTopic(m_settings, "event"), description, 1, false},
                              Message{BuildTopic(m_settings, "event/summary"), summary, 1, false}}) {
    int id = 0;
    const auto sent = m_broker.Publish(message, id);
    if (sent == Broker::Sent::Apart) return true;
    if (sent == Broker::Sent::TooLarge) {
      m_outbox.Fail(entry.name, fmt::format("{} bytes are more than the broker takes", description.size()), true, now);
      return false;
    }
    inFlight.ids.insert(id);
  }
  m_inFlight = std::move(inFlight);
  return true;
}

void Publisher::PublishHealth(Clock::time_point now) {
  m_healthAt = now + seconds(m_settings.healthSeconds);
  const auto recorder = AskRecorder(m_settings.controlSocket);
  OwnHealth own;
  own.unpublished = m_outbox.GetWaiting();
  if (const auto& newest = m_outbox.GetNewest()) {
    if (newest->name != m_newestName) {
      std::string ignored;
      const auto event = EventStore::ReadEvent(m_outbox.GetPath(*newest), ignored);
      m_newestTime = event ? EventStore::FormatTime(event->timeMs) : "";
      m_newestName = newest->name;
    }
    own.lastEventId = newest->id;
    own.lastEventTime = m_newestTime;
  }
  int ignored = 0;
  m_broker.Publish({BuildTopic(m_settings, "health"), BuildHealth(m_settings, recorder, own, GetUnixTimeMs()), 0, true},
                   ignored);
}

milliseconds Publisher::ChooseNap(Clock::time_point now) const {
  auto until = now + LongestNap;
  const bool isConnected = m_broker.GetState() == Broker::State::Connected;
  if (isConnected) until = std::min(until, m_healthAt);
  if (m_broker.GetState() == Broker::State::Apart) until = std::min(until, m_connectAt);
  return std::max(std::chrono::ceil<milliseconds>(until - now), milliseconds(0));
}

void Publisher::Leave() {
  int farewell = 0;
  const Message offline{BuildTopic(m_settings, AvailabilityTopic), Offline, 1, true};
  bool isWaiting = m_broker.Publish(offline, farewell) == Broker::Sent::Yes;
  const auto deadline = Clock::now() + LeaveTimeout;
  while (isWaiting && Clock::now() < deadline && m_broker.Turn(milliseconds(100)) == Broker::State::Connected) {
    for (const auto& acknowledgement : m_broker.TakeAcknowledgements()) {
      if (m_inFlight && m_inFlight->ids.erase(acknowledgement.id) == 1 && acknowledgement.refusal.empty() &&
          m_inFlight->ids.empty()) {
        m_outbox.Acknowledge(m_inFlight->name);
      }
      isWaiting = isWaiting && acknowledgement.id != farewell;
    }
  }
  m_broker.Leave();
}

}  // namespace Tavi::Mqtt
