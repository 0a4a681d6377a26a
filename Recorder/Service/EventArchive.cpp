// The way of an event from the working disk to its directory.
#include "Recorder/Service/EventArchive.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>
#include <string_view>
#include <utility>

#include "EventStore/EventName.h"
#include "EventStore/Storage.h"
#include "Kbase/Util/TimeMonitor.h"
#include "Ksystem/FileUtils/Kdir.h"
#include "Ksystem/FileUtils/Kfile.h"
#include "Ksystem/SysUtil/Group.h"
#include "Recorder/Service/EventRecord.h"
#include "Recorder/Service/RecoveredEvent.h"
#include "Tavi/GstUtil/Log.h"
#include "Tavi/PipelineCollect/EntryTimes.h"
#include "Tavi/RecoveryCollect/RecoveryCollectManager.h"

namespace Tavi::Recorder {
namespace {

using EventStore::SaveResult;
using Ksystem::FileUtils::Kdir;
using Ksystem::FileUtils::Kfile;
namespace fs = std::filesystem;

/// What fits beside a running event on a unit's RAM disk.
constexpr std::size_t MaxWaiting = 4;
/// Products of recovered events until they are events; hidden from whoever lists these.
constexpr const char* RecoveredDir = ".recovered/";
/// Before the id, in the name of a complete event that waits in the backup directory.
constexpr std::string_view SecuredPrefix = ".event-";

/// Of recovered products: a clip has its times in itself by now, and what a sensor's tells is in the event.
void RemoveCompanions(const std::vector<EventStore::SourceFile>& sources) {
  for (const auto& source : sources) Kfile(source.path + std::string(PipelineCollect::TimesSuffix), true).Remove();
}

}  // namespace

EventArchive::EventArchive(const StorageSettings& settings, const TimeOfDay& timeOfDay, EventStore::EventIds::Draw draw)
    : m_settings(settings),
      m_timeOfDay(timeOfDay),
      m_workingDisk(m_settings),
      m_store(fs::path(settings.eventsDir).parent_path().string(),
              {settings.maxBytes, static_cast<std::uint32_t>(settings.maxEvents), settings.minFreeBytes}),
      m_notes(fs::path(settings.eventsDir).parent_path().string()),
      m_ids(std::move(draw)) {}

/// Events that nobody can sign are better than none; status says so, and each of them.
void EventArchive::TakeIdentity() {
  const fs::path beside = fs::path(m_settings.eventsDir).parent_path().parent_path() / "identity.pem";
  const std::string path = m_settings.keyFile.empty() ? beside.string() : m_settings.keyFile;
  Kdir(Kdir::GetParentOf(path)).Create();
  m_identity = EventStore::Identity::LoadOrMake(path, m_unsigned);
  if (m_identity) {
    m_store.SignWith(*m_identity);
  } else {
    Log::Error("events are not signed: " + m_unsigned);
  }
}

nlohmann::ordered_json EventArchive::DescribeIdentity() {
  if (!m_identity) return {{"error", "events are not signed: " + m_unsigned}};
  return {{"publicKey", m_identity->GetPublicKey()},
          {"sequence", m_store.GetSequence()},
          {"pem", m_identity->GetPublicPem()}};
}

bool EventArchive::Open(std::string& problem) {
  // Before anything is made, or said, of what cannot be.
  std::error_code ignored;
  fs::path above = fs::path(m_settings.eventsDir).parent_path();
  while (above.has_relative_path() && !fs::exists(above, ignored)) above = above.parent_path();
  if (!above.empty() && !fs::is_directory(above, ignored)) {
    problem =
        "storage.eventsDir: \"" + above.string() + "\" is no directory; give one that can be created or written to";
    return false;
  }
  TakeIdentity();
  if (const auto viewers = Ksystem::SysUtil::FindGroup(m_settings.viewersGroup)) m_store.ShareWith(*viewers);
  if (!m_store.Open(problem)) return false;
  if (!Kdir(m_settings.workDir).Create() || ::access(m_settings.workDir.c_str(), W_OK | X_OK) != 0) {
    problem = "storage.workDir: nothing can be written into \"" + m_settings.workDir +
              "\"; give a directory that can be created or written to";
    return false;
  }
  if (!LockDirs(problem)) return false;
  std::vector<std::string> known;
  for (const auto& event : m_store.List()) known.push_back(event.id);
  std::vector<WaitingEvent> waiting;
  m_workingDisk.TakeLeft(known, waiting);
  TakeWaiting(std::move(waiting));
  TakeWaiting(FindSecured());
  for (const auto& id : known) m_ids.Take(id);
  for (const auto& event : m_waiting) m_ids.Take(event.noteId);
  for (const auto& note : m_notes.Read()) m_ids.Take(note.request.id);
  Maintain();
  return true;
}

bool EventArchive::LockDirs(std::string& problem) {
  for (const std::string& dir : {m_settings.workDir, m_settings.backupDir, m_settings.restoreDir}) {
    // What cannot be made is no obstacle to recording; whoever needs it says so.
    if (!Kdir(dir).Create()) continue;
    m_locks.emplace_back(dir);
    if (!m_locks.back().Take(problem)) return false;
  }
  return true;
}

/// Another disk may have been put in the place of one that was locked.
void EventArchive::HoldLocks() {
  for (auto& lock : m_locks) {
    std::string problem;
    if (!lock.IsCurrent() && !lock.Take(problem)) Log::Error(problem);
  }
}

/// Complete events that an earlier process could not save.
std::vector<WaitingEvent> EventArchive::FindSecured() const {
  std::vector<WaitingEvent> found;
  for (const std::string& name : EventStore::ListNames(m_settings.backupDir)) {
    const bool isHalfRemoved = WorkingDisk::IsHalfRemoved(name) && name.find(SecuredPrefix) != std::string::npos;
    if (!name.starts_with(SecuredPrefix) && !isHalfRemoved) continue;
    const std::string dir = m_settings.backupDir + name + "/";
    const bool isWhole = !isHalfRemoved && EventStore::IsEventId(name.substr(SecuredPrefix.size()));
    auto waiting = isWhole ? ReadWaiting(dir) : std::nullopt;
    std::string problem;
    if (waiting) {
      found.push_back(std::move(*waiting));
    } else if (isWhole && EventStore::Exists(dir + EventStore::EventJsonName)) {
      Log::Error("the event in " + dir + " cannot be read and stays there");
    } else if (!EventStore::RemoveTree(dir, problem)) {
      // Half a copy: what it was copied from went with the power, or is still on the working disk.
      Log::Warning(problem);
    }
  }
  return found;
}

/// What is complete twice, because the process died in between, is so once.
void EventArchive::TakeWaiting(std::vector<WaitingEvent> found) {
  std::set<std::string> known;
  for (const auto& event : m_store.List()) known.insert(event.id);
  for (const auto& waiting : m_waiting) known.insert(waiting.noteId);
  for (auto& waiting : found) {
    if (!known.insert(waiting.noteId).second) {
      WorkingDisk::Remove(waiting.dir);
      continue;
    }
    Log::Info("event " + waiting.noteId + " waits in " + waiting.dir + " until it can be saved");
    const std::lock_guard lock(m_mutex);
    m_waiting.push_back(std::move(waiting));
  }
}

void EventArchive::SecureWaiting() {
  const std::lock_guard lock(m_mutex);
  for (auto& waiting : m_waiting) {
    if (!waiting.dir.starts_with(m_settings.workDir)) continue;
    const std::string dir = m_settings.backupDir + std::string(SecuredPrefix) + waiting.noteId + "/";
    Place(waiting);
    std::string problem;
    if (CopyWaiting(waiting, dir, problem)) {
      WorkingDisk::Remove(std::exchange(waiting.dir, dir));
      for (auto& source : waiting.sources) source.path = dir + EventStore::GetFileName(source.path);
    } else {
      Log::Error("event " + waiting.noteId + " stays in " + waiting.dir + ": " + problem);
    }
  }
}

void EventArchive::Recover(const Pipeline::PipelineConfig& config, const EventStore::CameraNames& cameraNames) {
  RecoveryCollect::RecoveryCollectInput input{m_settings.restoreDir, m_settings.eventsDir + RecoveredDir,
                                              static_cast<float>(config.camera0.fps),
                                              static_cast<float>(config.camera1.fps)};
  RecoveryCollect::RecoveryCollectOutput output;
  RecoveryCollect::RecoveryCollectManager::MoveBackup(m_settings.backupDir, m_settings.restoreDir);
  RecoveryCollect::RecoveryCollectManager::Collect(input, output);
  auto notes = m_notes.Read();
  ForgetSettled(notes);
  for (const auto& recovered : output.events) SaveRecovered(recovered, config, cameraNames, notes);
  Complain(notes);
}

/// Of requests for which there is nothing.
void EventArchive::Complain(const Notes& notes) {
  std::set<std::string> waiting;
  {
    const std::lock_guard lock(m_mutex);
    for (const auto& event : m_waiting) waiting.insert(event.noteId);
  }
  for (const auto& note : notes) {
    const auto& request = note.request;
    // What could not be recovered for want of room may be at the next start.
    if (waiting.contains(request.id) || EventStore::Exists(m_settings.workDir + request.id)) continue;
    Log::Error(fmt::format(
        "nothing is there of the event {} of {} ({}{}{}): it was interrupted before anything was saved", request.id,
        EventStore::FormatTime(request.timeMs), request.trigger, request.label.empty() ? "" : ", ", request.label));
    m_notes.Remove(request.id);
  }
}

/// A process may have died between an event and the end of its note.
void EventArchive::ForgetSettled(Notes& notes) {
  const auto events = m_store.List();
  std::erase_if(notes, [&](const EventStore::RequestNote& note) {
    const std::string& id = note.request.id;
    const bool isSettled =
        std::any_of(events.begin(), events.end(), [&id](const auto& event) { return event.id == id; });
    if (isSettled) m_notes.Remove(id);
    return isSettled;
  });
}

/// True when all of an event of that id waits for room: what was copied ahead of it is the less of it.
bool EventArchive::IsWaiting(const std::string& id) const {
  const std::lock_guard lock(m_mutex);
  return std::ranges::any_of(m_waiting, [&id](const WaitingEvent& w) { return w.noteId == id && !w.dir.empty(); });
}

/// True when an event of that id has all that was recovered: a power cut has brought back what it was made of.
bool EventArchive::IsStored(const RecoveryCollect::RecoveredEvent& recovered, const std::string& id) const {
  for (const auto& entry : m_store.List()) {
    if (entry.id != id) continue;
    std::string problem;
    const auto event = EventStore::ReadEvent(m_settings.eventsDir + entry.name, problem);
    if (!event) return false;
    // It came to its end by itself: what else there is of it was copied ahead in case it would not.
    if (!event->interrupted) return true;
    std::set<std::string> types;
    for (const auto& file : event->files) types.insert(file.type);
    const auto sources = ListSources(recovered.output);
    return std::all_of(sources.begin(), sources.end(), [&](const auto& source) { return types.contains(source.type); });
  }
  return false;
}

void EventArchive::SaveRecovered(const RecoveryCollect::RecoveredEvent& recovered,
                                 const Pipeline::PipelineConfig& config, const EventStore::CameraNames& cameraNames,
                                 Notes& notes) {
  const auto sources = ListSources(recovered.output);
  const std::string id = GetInterruptedId(recovered.name);
  if (IsWaiting(id) || IsStored(recovered, id)) {
    Log::Info("the interrupted event " + recovered.name + " is an event already");
    for (const auto& source : sources) Kfile(source.path).Remove();
    RemoveCompanions(sources);
    Kdir::Sync(m_settings.eventsDir + RecoveredDir);
    return;
  }
  const auto note = TakeNote(recovered, notes);
  if (!recovered.isComplete) {
    Log::Error("the interrupted event " + recovered.name + " waits in " + m_settings.eventsDir + RecoveredDir +
               " for room for the rest of it, which is tried at the next start");
    return;
  }
  WaitingEvent waiting{
      DescribeRecovered(recovered, note, config, cameraNames), sources, id, {}, note && note->isProtected};
  EventResult result;
  if (TrySave(waiting, result)) return;
  Log::Error("the interrupted event " + recovered.name + " waits in " + m_settings.eventsDir + RecoveredDir +
             " until it can be saved: " + result.problem);
  waiting.problem = result.problem;
  const std::lock_guard lock(m_mutex);
  m_waitingFor = result.problem;
  m_waiting.push_back(std::move(waiting));
}

EventResult EventArchive::Save(EventStore::EventDescription& event, const std::vector<EventStore::SourceFile>& sources,
                               const std::string& workId, bool keep, const std::optional<Moment>& moment) {
  WaitingEvent waiting{std::move(event), sources, workId, GetWorkDir(workId), keep, moment};
  EventResult result;
  if (!TrySave(waiting, result)) {
    waiting.problem = result.problem;
    result.isWaiting = KeepForLater(std::move(waiting), result.problem);
  }
  return result;
}

/// An event of before the first fix is placed when the receiver's time has become known.
void EventArchive::Place(WaitingEvent& waiting) const {
  if (waiting.moment) EventStore::SetTime(waiting.event, m_timeOfDay.Tell(*waiting.moment));
}

void EventArchive::PlaceAnnounced() {
  m_notes.Rewrite([this](EventStore::RequestNote& note) {
    if (!note.moment) return false;
    const Moment moment{*note.moment, EventStore::GetSystemTimeMs(note.request)};
    EventStore::SetTime(note.request, m_timeOfDay.Tell(moment));
    return true;
  });
}

bool EventArchive::TrySave(WaitingEvent& waiting, EventResult& result) {
  result = {};
  Place(waiting);
  result.time = EventStore::GetTime(waiting.event);
  const Kbase::Util::TimeMonitor sinceStart;
  const auto saved = m_store.Save(waiting.event, waiting.sources, waiting.keep, result.directory, result.problem);
  result.id = waiting.event.id;
  result.isSaved = saved == SaveResult::Saved;
  result.files = waiting.event.files.size();
  if (!result.isSaved) return false;
  m_ids.Take(result.id);
  ++m_saved;
  if (waiting.dir.empty()) {
    RemoveCompanions(waiting.sources);
  } else {
    WorkingDisk::Remove(waiting.dir);
  }
  m_notes.Remove(waiting.noteId);
  Log::Info(fmt::format("event {} is in {}, complete within {} ms", result.id, result.directory,
                        sinceStart.Elapsed().count()));
  return true;
}

/// False when it is the one that has to give way.
bool EventArchive::KeepForLater(WaitingEvent waiting, const std::string& problem) {
  ++m_failed;
  const std::string id = waiting.noteId;
  Log::Error("event " + waiting.event.id + " waits in " + waiting.dir + " until it can be saved: " + problem);
  std::string trouble;
  if (!WriteDown(waiting, trouble)) Log::Warning(trouble);
  {
    const std::lock_guard lock(m_mutex);
    m_waiting.push_back(std::move(waiting));
    m_waitingFor = problem;
  }
  const auto superfluous = TakeSuperfluous();
  if (superfluous) Discard(*superfluous);
  return !superfluous || superfluous->noteId != id;
}

/// The oldest of those that nobody has asked to keep, when more wait on the working disk than may.
std::optional<WaitingEvent> EventArchive::TakeSuperfluous() {
  const std::lock_guard lock(m_mutex);
  const auto isWorking = [this](const WaitingEvent& w) { return w.dir.starts_with(m_settings.workDir); };
  if (static_cast<std::size_t>(std::ranges::count_if(m_waiting, isWorking)) <= MaxWaiting) return std::nullopt;
  const auto oldest = std::ranges::find_if(m_waiting, [&](const auto& w) { return isWorking(w) && !w.keep; });
  if (oldest == m_waiting.end()) return std::nullopt;
  WaitingEvent superfluous = std::move(*oldest);
  m_waiting.erase(oldest);
  return superfluous;
}

void EventArchive::Discard(const WaitingEvent& waiting) {
  Log::Error("event " + waiting.event.id +
             " is given up: there was no room for it, and newer ones need the working disk");
  m_notes.Remove(waiting.noteId);
  WorkingDisk::Remove(waiting.dir);
}

void EventArchive::Maintain() {
  HoldLocks();
  EventStore::RetentionResult state;
  m_store.Apply(state);
  std::deque<WaitingEvent> waiting;
  {
    const std::lock_guard lock(m_mutex);
    if (state.isFull && !m_state.isFull) Log::Error("events cannot be saved: " + state.problem);
    if (!state.isFull && m_state.isFull) Log::Info("there is room for events again");
    m_state = std::move(state);
    waiting.swap(m_waiting);
  }
  // One that cannot be saved for a reason of its own keeps no other back.
  std::erase_if(waiting, [this](WaitingEvent& event) {
    EventResult result;
    if (TrySave(event, result)) return true;
    // The disk may have changed its mind, but not every ten seconds.
    if (std::exchange(event.problem, result.problem) != result.problem) {
      Log::Error("event " + event.event.id + " still waits in " + event.dir + ": " + result.problem);
    }
    return false;
  });
  const std::lock_guard lock(m_mutex);
  m_waiting.insert(m_waiting.begin(), std::move_iterator(waiting.begin()), std::move_iterator(waiting.end()));
}

nlohmann::ordered_json EventArchive::Describe() const {
  const std::lock_guard lock(m_mutex);
  nlohmann::ordered_json json;
  json["eventsDir"] = m_settings.eventsDir;
  json["events"] = m_state.events;
  json["bytes"] = m_state.bytesUsed;
  json["freeBytes"] = m_state.freeBytes;
  json["full"] = m_state.isFull || !m_waiting.empty();
  json["problem"] = m_waiting.empty() ? m_state.problem : m_waitingFor;
  json["waiting"] = m_waiting.size();
  json["saved"] = m_saved.load();
  json["failed"] = m_failed.load();
  json["unsigned"] = m_unsigned;
  return json;
}

}  // namespace Tavi::Recorder
