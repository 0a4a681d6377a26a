// The way of an event from the working disk to its directory.
#pragma once

#include <atomic>
#include <deque>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "EventStore/DirectoryLock.h"
#include "EventStore/EventIds.h"
#include "EventStore/EventStore.h"
#include "EventStore/Identity.h"
#include "EventStore/RequestNotes.h"
#include "Recorder/Service/EventOrder.h"
#include "Recorder/Service/TimeOfDay.h"
#include "Recorder/Service/WaitingEvent.h"
#include "Recorder/Service/WorkingDisk.h"
#include "Recorder/Settings/Settings.h"
#include "Tavi/Pipeline/PipelineConfig.h"
#include "Tavi/RecoveryCollect/RecoveryCollectTypes.h"

namespace Tavi::Recorder {

/// Owns the working directory's content and the events directory. An event for which there is no room waits on the
/// working disk and is saved as soon as there is; a few of them, then the oldest that nobody has asked to keep gives
/// way. Thread-safe, and slow: it waits for disks.
class EventArchive {
 public:
  /// Borrows `timeOfDay`.
  EventArchive(const StorageSettings& settings, const TimeOfDay& timeOfDay,
               EventStore::EventIds::Draw draw = EventStore::NewEventId);

  /// Takes all directories for this process. False, with one sentence in `problem`, when one cannot be had.
  [[nodiscard]] bool Open(std::string& problem);
  /// Finishes what a power failure has interrupted, and makes events of it. Call it before the first Announce.
  /// `cameraNames`: for what was interrupted without a note of its request.
  void Recover(const Pipeline::PipelineConfig& config, const EventStore::CameraNames& cameraNames = {});

  /// Notes down what will be an event, for Recover after the next start. To be called for each order, on any thread,
  /// and to be followed by Save or Withdraw; in between, or before it, makes no difference.
  /// `moment`: of the event, as for Save.
  void Announce(const EventStore::EventDescription& request, bool keep, const std::optional<Moment>& moment = {}) {
    m_notes.Add({request, keep, moment ? std::optional(moment->steady) : std::nullopt});
  }
  /// Notes down the time that those announced have by now. To be called when the receiver's has become known.
  void PlaceAnnounced();
  /// The id of an event that is about to be ordered, which no event has that is saved, waits or was announced.
  [[nodiscard]] std::string NewId() { return m_ids.New(); }
  /// There will be no event of that id.
  void Withdraw(const std::string& id) { m_notes.Remove(id); }

  /// Where the files of that event are collected, with a "/" at its end.
  [[nodiscard]] std::string GetWorkDir(const std::string& id) const { return m_workingDisk.GetDir(id); }
  /// Removes it: there is nothing in it that anybody asked for.
  void DropWorkDir(const std::string& id) const { WorkingDisk::Remove(GetWorkDir(id)); }
  /// Moves the files of GetWorkDir(`workId`) into a directory of their own. `keep`: retention leaves it alone.
  /// `moment`: when the event was; its time then is the receiver's as soon as that is known, whether now or while it
  /// waits.
  EventResult Save(EventStore::EventDescription& event, const std::vector<EventStore::SourceFile>& sources,
                   const std::string& workId, bool keep, const std::optional<Moment>& moment = std::nullopt);
  /// Looks how full the disk is, makes room, and saves what waits. To be called every few seconds.
  void Maintain();
  /// Brings what waits in the working directory, which may not outlive the machine, to where power that fails does not
  /// reach it. To be called when the recorder ends; the next start finds it there.
  void SecureWaiting();

  [[nodiscard]] const EventStore::EventStore& GetStore() const { return m_store; }
  /// Removes a complete event because somebody has asked for it; see EventStore::Remove.
  [[nodiscard]] bool Remove(const std::string& id, bool evenProtected, std::string& problem) {
    return m_store.Remove(id, evenProtected, problem);
  }
  /// {"eventsDir","bytes","events","freeBytes","full","waiting","saved","failed","problem","unsigned"}.
  [[nodiscard]] nlohmann::ordered_json Describe() const;
  /// {"publicKey","sequence","pem"} of what events are signed with, or {"error"}. Waits for a commit under way.
  [[nodiscard]] nlohmann::ordered_json DescribeIdentity();

 private:
  using Notes = std::vector<EventStore::RequestNote>;

  void TakeIdentity();
  bool LockDirs(std::string& problem);
  void HoldLocks();
  void TakeWaiting(std::vector<WaitingEvent> found);
  [[nodiscard]] std::vector<WaitingEvent> FindSecured() const;
  void SaveRecovered(const RecoveryCollect::RecoveredEvent& recovered, const Pipeline::PipelineConfig& config,
                     const EventStore::CameraNames& cameraNames, Notes& notes);
  [[nodiscard]] bool IsWaiting(const std::string& id) const;
  [[nodiscard]] bool IsStored(const RecoveryCollect::RecoveredEvent& recovered, const std::string& id) const;
  void ForgetSettled(Notes& notes);
  void Complain(const Notes& notes);
  void Place(WaitingEvent& waiting) const;
  bool TrySave(WaitingEvent& waiting, EventResult& result);
  bool KeepForLater(WaitingEvent waiting, const std::string& problem);
  [[nodiscard]] std::optional<WaitingEvent> TakeSuperfluous();
  void Discard(const WaitingEvent& waiting);

  const StorageSettings m_settings;
  const TimeOfDay& m_timeOfDay;
  const WorkingDisk m_workingDisk;
  EventStore::EventStore m_store;
  EventStore::RequestNotes m_notes;
  EventStore::EventIds m_ids;
  /// Set by Open; empty when there is none, and why.
  std::optional<EventStore::Identity> m_identity;
  std::string m_unsigned;
  /// Of all directories but that of the events, whose writer has its own.
  std::vector<EventStore::DirectoryLock> m_locks;
  mutable std::mutex m_mutex;
  std::deque<WaitingEvent> m_waiting;
  /// Why the last of them could not be saved.
  std::string m_waitingFor;
  EventStore::RetentionResult m_state;
  std::atomic<std::uint64_t> m_saved{0};
  std::atomic<std::uint64_t> m_failed{0};
};

}  // namespace Tavi::Recorder
