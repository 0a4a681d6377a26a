// The events that are still to be published.
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "EventStore/EventList.h"
#include "Fleet/Mqtt/AcknowledgedEvents.h"
#include "Fleet/Mqtt/DirectoryWatch.h"

namespace Tavi::Mqtt {

/// Complete events without the broker's acknowledgement, in the order in which they were saved. One that fails again
/// and again is put off for a while, so that it does not stand in the way of the others. Thread-bound; holds names
/// only, and of events that are there.
class Outbox {
 public:
  using Clock = std::chrono::steady_clock;

  explicit Outbox(std::string stateFile) : m_acknowledged(std::move(stateFile)) {}

  /// Reads what was acknowledged. `withEarlier`: at the first start all events are to be published, else those that are
  /// saved after the first look. False, with the reason, when the state cannot be read or kept.
  [[nodiscard]] bool Open(bool withEarlier, std::string& problem);
  /// Where the events are; one that is given again changes nothing.
  void SetDirectory(const std::string& directory);
  /// Looks into the directory when it has changed, or was not looked at for half a minute.
  void Look(Clock::time_point now);

  /// The next event that may be tried; null when there is none now. Lives until the next call of anything else.
  [[nodiscard]] const EventStore::EventEntry* GetNext(Clock::time_point now) const;
  [[nodiscard]] std::string GetPath(const EventStore::EventEntry& entry) const {
    return m_directory + "/" + entry.name;
  }

  /// The broker has it: written down before this returns, or the log says that it could not be.
  void Acknowledge(const std::string& name);
  /// It could not be published. `isHopeless`: another try at once would do no better.
  void Fail(const std::string& name, const std::string& why, bool isHopeless, Clock::time_point now);

  [[nodiscard]] bool HasDirectory() const { return !m_directory.empty(); }
  [[nodiscard]] std::size_t GetWaiting() const { return m_waiting.size(); }
  /// The event that was saved last; empty when there is none.
  [[nodiscard]] const std::optional<EventStore::EventEntry>& GetNewest() const { return m_newest; }

 private:
  struct Trouble {
    int failures = 0;
    Clock::time_point notBefore;
  };
  void TakeAll(const std::vector<EventStore::EventEntry>& entries);
  void TellRemoved(const std::vector<EventStore::EventEntry>& before) const;
  void Write(const std::vector<std::string>& names);

  AcknowledgedEvents m_acknowledged;
  DirectoryWatch m_watch;
  std::string m_directory;
  std::optional<EventStore::EventLister> m_lister;
  /// Whether all that the next look finds counts as acknowledged.
  bool m_isFirstLook = false;
  bool m_isMissingTold = false;
  bool m_isUnwrittenTold = false;
  std::optional<Clock::time_point> m_lookedAt;
  std::vector<EventStore::EventEntry> m_waiting;
  std::map<std::string, Trouble, std::less<>> m_troubles;
  std::optional<EventStore::EventEntry> m_newest;
};

}  // namespace Tavi::Mqtt
