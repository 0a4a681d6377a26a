// Which event is sent next, what follows a failure, and what is removed here.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "EventStore/EventList.h"
#include "Fleet/Upload/EventSender.h"
#include "Fleet/Upload/Metered.h"
#include "Fleet/Upload/RecorderLink.h"
#include "Fleet/Upload/Remote.h"
#include "Fleet/Upload/StatusFile.h"
#include "Fleet/Upload/StopSignal.h"
#include "Fleet/Upload/UploadSettings.h"
#include "Fleet/Upload/UploadState.h"

namespace Tavi::Upload {

/// Sends the events of one directory, the oldest first, one at a time, on the calling thread, which it keeps until it
/// is told to end. An event that fails again and again stands behind the others and is never given up.
class Uploader {
 public:
  /// Borrows `stop`.
  Uploader(UploadSettings settings, const StopSignal& stop);

  /// Takes the state's directory. False, with one sentence in `problem`, when another process has it.
  [[nodiscard]] bool Open(std::string& problem);
  /// With `once` until there is nothing to do that has not been tried `attempts` times: true when nothing is left over.
  /// Else until it is told to end: true. No exception but of memory leaves it.
  bool Run(bool once);

 private:
  using Clock = std::chrono::steady_clock;
  using Entries = std::vector<EventStore::EventEntry>;

  /// One thing is done. False when there was nothing to do.
  bool Step();
  bool FindEvents();
  Entries List();
  void TellGone(const std::set<std::string>& names);
  [[nodiscard]] bool IsWanted(const EventStore::EventEntry& event) const;
  [[nodiscard]] bool IsRipe(const EventStore::EventEntry& event);
  const EventStore::EventEntry* Choose(const Entries& events);
  void SendOne(const EventStore::EventEntry& event);
  bool RemoveOne(const Entries& events);
  [[nodiscard]] bool MayRemove(const EventStore::EventEntry& event, std::string& problem);
  void Fail(const std::string& subject, const std::string& problem);
  void Succeed();
  void Tell(const std::string& state);
  void Count(const Entries& events);
  /// In steps, so that the status stays young.
  void Wait(std::chrono::duration<double> time, const std::string& state);

  const UploadSettings m_settings;
  const StopSignal& m_stop;
  const RecorderLink m_recorder;
  Metered m_metered;
  UploadState m_state;
  StatusFile m_statusFile;
  UploadStatus m_status;
  bool m_isOnce = false;
  bool m_sendStreams = false;
  std::string m_eventsDir;
  std::unique_ptr<EventStore::EventLister> m_lister;
  std::unique_ptr<Remote> m_remote;
  std::unique_ptr<EventSender> m_sender;
  /// Of events that are still there.
  std::map<std::string, int, std::less<>> m_failures;
  std::map<std::string, Clock::time_point, std::less<>> m_seenAt;
  std::set<std::string, std::less<>> m_damaged;
  std::chrono::duration<double> m_pause{0};
  /// Before then nothing is removed: the recorder or the far side refused.
  std::optional<Clock::time_point> m_removeAgain;
};

}  // namespace Tavi::Upload
