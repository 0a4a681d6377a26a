// The way of an event from the working disk to its directory.
#pragma once

#include <atomic>
#include <deque>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "EventStore/EventStore.h"
#include "EventStore/RequestNotes.h"
#include "Recorder/Service/EventOrder.h"
#include "Recorder/Settings/Settings.h"
#include "Tavi/Pipeline/PipelineConfig.h"
#include "Tavi/RecoveryCollect/RecoveryCollectTypes.h"

namespace Tavi::Recorder {

/// Owns the working directory's content and the events directory. An event for which there is no room waits on the
/// working disk and is saved as soon as there is; a few of them, then the oldest gives way. Thread-safe, and slow: it
/// waits for disks.
class EventArchive {
 public:
  explicit EventArchive(const StorageSettings& settings);

  /// Takes both directories for this process. False, with one sentence in `problem`, when one cannot be had.
  [[nodiscard]] bool Open(std::string& problem);
  /// Finishes what a power failure has interrupted, and makes events of it. Call it before the first Announce.
  void Recover(const Pipeline::PipelineConfig& config);

  /// Notes down what will be an event, for Recover after the next start. To be called for each order, on any thread,
  /// and to be followed by Save or Withdraw; in between, or before it, makes no difference.
  void Announce(const EventStore::EventDescription& request, bool keep) { m_notes.Add({request, keep}); }
  /// There will be no event of that id.
  void Withdraw(const std::string& id) { m_notes.Remove(id); }

  /// Where the files of that event are collected, with a "/" at its end.
  [[nodiscard]] std::string GetWorkDir(const std::string& id) const;
  /// Removes it: there is nothing in it that anybody asked for.
  void DropWorkDir(const std::string& id) const;
  /// Moves the files of GetWorkDir(`workId`) into a directory of their own. `keep`: retention leaves it alone.
  EventResult Save(EventStore::EventDescription& event, const std::vector<EventStore::SourceFile>& sources,
                   const std::string& workId, bool keep);
  /// Looks how full the disk is, makes room, and saves what waits. To be called every few seconds.
  void Maintain();

  [[nodiscard]] const EventStore::EventStore& GetStore() const { return m_store; }
  /// {"eventsDir","bytes","events","freeBytes","full","waiting","saved","failed","problem"}.
  [[nodiscard]] nlohmann::ordered_json Describe() const;

 private:
  struct Waiting {
    EventStore::EventDescription event;
    std::vector<EventStore::SourceFile> sources;
    std::string workId;
    bool keep = false;
  };

  void SaveLeftovers() const;
  void ForgetSettled(std::vector<EventStore::RequestNote>& notes);
  void SaveRecovered(const RecoveryCollect::RecoveredEvent& recovered, const Pipeline::PipelineConfig& config,
                     std::vector<EventStore::RequestNote>& notes);
  bool TrySave(Waiting& waiting, EventResult& result);
  void KeepForLater(Waiting waiting, const std::string& problem);
  void Discard(const Waiting& waiting);

  const StorageSettings m_settings;
  EventStore::EventStore m_store;
  EventStore::RequestNotes m_notes;
  mutable std::mutex m_mutex;
  std::deque<Waiting> m_waiting;
  /// Why the last of them could not be saved.
  std::string m_waitingFor;
  EventStore::RetentionResult m_state;
  std::atomic<std::uint64_t> m_saved{0};
  std::atomic<std::uint64_t> m_failed{0};
};

}  // namespace Tavi::Recorder
