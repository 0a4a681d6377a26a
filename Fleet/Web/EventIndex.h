// What the console knows of all events, kept in memory.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "EventStore/EventList.h"
#include "Kbase/Interfaces/IThread.h"

namespace Tavi::Web {

/// One event in the list. Immutable once it is shared.
struct EventSummary {
  EventStore::EventEntry entry;
  /// Unix time in milliseconds; of an event whose description cannot be read when it was saved.
  std::int64_t timeMs = 0;
  std::string label;
  /// What somebody has written beside the event afterwards.
  std::string laterLabel;
  std::string trigger;
  std::optional<double> maxSpeedKnots;
  std::optional<double> maxG;
  double seconds = 0.0;
  bool isWhole = true;
  /// What is searched in, folded by FoldCase.
  std::string searched;
  /// As the list has it, one JSON object.
  std::string json;
};

using EventSummaries = std::vector<std::shared_ptr<const EventSummary>>;

/// Looks at the events directory once a second, on the thread "INDEX"; a description is read again only when its
/// directory has changed. What it knows meanwhile is given at once: nobody waits for the disk. Thread-safe.
class EventIndex final : public Kbase::Interfaces::IThread {
 public:
  /// `findDirectory`: asked before each look; empty while nobody knows where the events are.
  explicit EventIndex(std::function<std::string()> findDirectory);
  ~EventIndex() override { Stop(); }

  struct Snapshot {
    /// The latest first. Never null.
    std::shared_ptr<const EventSummaries> events;
    /// Without a "/" at its end; empty while it is not known.
    std::string directory;
    /// Not all events have been looked at yet.
    bool isFirstLook = true;
    /// Why the directory cannot be read; empty while it can.
    std::string problem;
  };
  [[nodiscard]] Snapshot Read() const;
  /// Null when there is none of that id.
  [[nodiscard]] std::shared_ptr<const EventSummary> Find(std::string_view id) const;
  /// Has a look taken that begins after this call, and waits for its end, at most `patience`.
  void Refresh(std::chrono::milliseconds patience);

 protected:
  void Run() override;

 private:
  void Look(const std::string& directory);
  void Publish(EventSummaries events, const std::string& directory, bool isFirstLook, std::string problem);

  const std::function<std::string()> m_findDirectory;
  /// Of the thread alone: by the directory's name.
  std::map<std::string, std::shared_ptr<const EventSummary>, std::less<>> m_known;
  std::unique_ptr<EventStore::EventLister> m_lister;
  std::string m_listed;
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  Snapshot m_snapshot;
  std::uint64_t m_begun = 0;
  std::uint64_t m_done = 0;
};

/// For comparing text without regard to capitals: ASCII and the letters of Western European languages.
std::string FoldCase(std::string_view utf8);

}  // namespace Tavi::Web
