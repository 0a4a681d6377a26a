// Which event is sent next, what follows a failure, and what is removed here.
#include "Fleet/Upload/Uploader.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "EventStore/EventName.h"
#include "EventStore/Storage.h"
#include "Fleet/Upload/Log.h"

namespace Tavi::Upload {
namespace {

using Seconds = std::chrono::duration<double>;

constexpr Seconds StatusTime{5.0};
/// The recorder makes an event's page after the event; without one by then, there will be none.
constexpr std::chrono::seconds PageTime{10};
/// In the recorder's directory of events: without it, a disk is missing rather than every event on it.
constexpr const char* RecorderLock = ".lock";

}  // namespace

Uploader::Uploader(UploadSettings settings, const StopSignal& stop)
    : m_settings(std::move(settings)),
      m_stop(stop),
      m_recorder(m_settings.controlSocket),
      m_metered(m_settings.metered),
      m_statusFile(m_settings.statusFile, m_settings.metricsFile) {}

bool Uploader::Open(std::string& problem) {
  if (!m_state.Open(m_settings.stateDir, m_settings.remote, problem)) return false;
  m_remote = std::make_unique<Remote>(m_settings, m_stop, m_state.GetLockFd(), [this] { Tell("sending"); });
  return true;
}

bool Uploader::Run(bool once) {
  m_isOnce = once;
  Tell("waiting");
  while (!m_stop.IsStopped()) {
    if (Step()) continue;
    if (once) break;
    Wait(Seconds(m_settings.lookSeconds), "waiting");
  }
  Tell("stopped");
  return !once || (m_lister != nullptr && m_status.waiting == 0 && m_status.damaged == 0 && !m_removeAgain);
}

bool Uploader::FindEvents() {
  std::string problem;
  if (m_eventsDir.empty()) {
    m_eventsDir = m_settings.eventsDir.empty() ? m_recorder.AskEventsDir(problem) : m_settings.eventsDir;
    while (m_eventsDir.size() > 1 && m_eventsDir.back() == '/') m_eventsDir.pop_back();
  }
  if (problem.empty() && !EventStore::IsDirectory(m_eventsDir)) {
    problem = m_eventsDir + " is no directory; give that of the recorder's events (eventsDir)";
  }
  if (!problem.empty()) {
    Fail("the events", problem);
    return false;
  }
  if (m_lister == nullptr) {
    m_lister = std::make_unique<EventStore::EventLister>(m_eventsDir);
    m_sender = std::make_unique<EventSender>(m_eventsDir, *m_remote);
  }
  return true;
}

bool Uploader::Step() {
  if (!FindEvents()) return !m_isOnce;
  const auto metered = m_metered.Get();
  m_status.metered = metered;
  m_sendStreams = m_settings.sendStreams == "always" || (m_settings.sendStreams == "unmetered" && metered != true);
  const Entries events = List();
  const auto* next = Choose(events);
  if (next != nullptr) {
    SendOne(*next);
    Count(events);
    return true;
  }
  return m_settings.deleteAfter && RemoveOne(events);
}

Uploader::Entries Uploader::List() {
  Entries events = m_lister->List();
  std::set<std::string> names;
  for (const auto& event : events) names.insert(event.name);
  const auto forget = [&names](auto& of, auto getName) {
    std::erase_if(of, [&](const auto& one) { return !names.contains(getName(one)); });
  };
  forget(m_failures, [](const auto& pair) { return pair.first; });
  forget(m_seenAt, [](const auto& pair) { return pair.first; });
  forget(m_damaged, [](const auto& name) { return name; });
  if (EventStore::Exists(m_eventsDir + "/" + RecorderLock)) TellGone(names);
  Count(events);
  return events;
}

void Uploader::TellGone(const std::set<std::string>& names) {
  for (const auto& event : m_state.ForgetGone(names)) {
    std::string problem;
    if (!m_remote->Put(event, PartialName, FormatPartial(event), problem)) {
      if (!m_stop.IsStopped()) Fail(event, problem);
      return;
    }
    LogWarning(event + ": removed on the unit before all of it was sent; the far side has it in part, and is told so");
    m_state.Forget(event);
  }
}

bool Uploader::IsWanted(const EventStore::EventEntry& event) const {
  if (m_damaged.contains(event.name)) return false;
  const auto progress = m_state.Get(event.name);
  return progress != Progress::Whole && (progress != Progress::WithoutStreams || m_sendStreams);
}

bool Uploader::IsRipe(const EventStore::EventEntry& event) {
  const auto now = Clock::now();
  const auto seenAt = m_seenAt.try_emplace(event.name, now).first->second;
  return m_isOnce || now - seenAt >= PageTime ||
         EventStore::Exists(fmt::format("{}/{}/{}", m_eventsDir, event.name, EventStore::PageName));
}

const EventStore::EventEntry* Uploader::Choose(const Entries& events) {
  const EventStore::EventEntry* chosen = nullptr;
  int fewest = 0;
  for (const auto& event : events) {
    if (!IsWanted(event) || !IsRipe(event)) continue;
    const auto failures = m_failures.find(event.name);
    const int rounds = failures == m_failures.end() ? 0 : failures->second / m_settings.attempts;
    if (m_isOnce && rounds > 0) continue;
    if (chosen != nullptr && rounds >= fewest) continue;
    chosen = &event;
    fewest = rounds;
  }
  return chosen;
}

void Uploader::SendOne(const EventStore::EventEntry& event) {
  Tell("sending");
  if (!m_state.Get(event.name)) m_state.Set(event.name, Progress::Begun);
  std::string problem;
  const auto result = m_sender->Send(event.name, m_sendStreams, problem);
  if (m_stop.IsStopped()) return;
  switch (result) {
    case SendResult::Whole:
    case SendResult::WithoutStreams:
      m_state.Set(event.name, result == SendResult::Whole ? Progress::Whole : Progress::WithoutStreams);
      LogInfo(fmt::format("{} is {} on the far side", event.name,
                          result == SendResult::Whole ? "whole" : "whole but for its streams"));
      Succeed();
      break;
    case SendResult::Damaged:
      m_damaged.insert(event.name);
      LogWarning(fmt::format("{} is damaged and not sent: {}", event.name, problem));
      break;
    case SendResult::Gone:
      break;
    case SendResult::Failed:
      ++m_failures[event.name];
      Fail(event.name, problem);
      break;
  }
}

bool Uploader::MayRemove(const EventStore::EventEntry& event, std::string& problem) {
  const auto result = m_sender->Prove(event.name, problem);
  if (result != SendResult::Whole && result != SendResult::Gone && problem.empty()) {
    LogWarning(event.name + " is no more whole on the far side, and is sent again");
    m_state.Forget(event.name);
  }
  if (result == SendResult::Damaged) m_damaged.insert(event.name);
  return result == SendResult::Whole;
}

bool Uploader::RemoveOne(const Entries& events) {
  if (m_removeAgain && (m_isOnce || Clock::now() < *m_removeAgain)) return false;
  m_removeAgain.reset();
  const auto event = std::ranges::find_if(events, [this](const auto& one) {
    return !one.isProtected && !m_damaged.contains(one.name) && m_state.Get(one.name) == Progress::Whole;
  });
  if (event == events.end()) return false;
  std::string problem;
  if (MayRemove(*event, problem) && m_recorder.Remove(event->id, problem)) {
    LogInfo(event->name + " is whole on the far side, and was removed here");
    m_state.CountDeleted();
  } else if (!problem.empty() && !m_stop.IsStopped()) {
    // Events are sent meanwhile: whoever refuses this may still take them.
    m_removeAgain = Clock::now() + std::chrono::duration_cast<Clock::duration>(Seconds(m_settings.retryMaxSeconds));
    m_status.lastError = fmt::format("{} stays here: {}", event->name, problem);
    LogWarning(m_status.lastError);
  }
  return true;
}

void Uploader::Fail(const std::string& subject, const std::string& problem) {
  if (m_stop.IsStopped()) return;
  m_pause = std::clamp(m_pause * 2, Seconds(m_settings.retryFirstSeconds), Seconds(m_settings.retryMaxSeconds));
  ++m_status.failed;
  m_status.lastError = fmt::format("{}: {}", subject, problem);
  LogWarning(fmt::format("{}; once more in {:.1f} s", m_status.lastError, m_pause.count()));
  Wait(m_pause, "pausing");
}

void Uploader::Succeed() {
  m_pause = Seconds(0);
  m_status.lastError.clear();
}

void Uploader::Count(const Entries& events) {
  m_status.damaged = m_damaged.size();
  m_status.waiting = m_status.withheld = 0;
  for (const auto& event : events) {
    const auto progress = m_state.Get(event.name);
    const bool isWithheld = progress == Progress::WithoutStreams;
    if (isWithheld) ++m_status.withheld;
    if (!isWithheld && progress != Progress::Whole && !m_damaged.contains(event.name)) ++m_status.waiting;
  }
}

void Uploader::Tell(const std::string& state) {
  m_status.state = state;
  m_status.sent = m_state.GetSent();
  m_status.deleted = m_state.GetDeleted();
  m_status.lastSent = m_state.GetLastSent();
  m_statusFile.Write(m_status);
}

void Uploader::Wait(Seconds time, const std::string& state) {
  const auto end = Clock::now() + time;
  do {
    Tell(state);
    const Seconds left = std::min<Seconds>(end - Clock::now(), StatusTime);
    if (m_stop.WaitFor(std::chrono::ceil<std::chrono::milliseconds>(left))) return;
  } while (Clock::now() < end);
}

}  // namespace Tavi::Upload
