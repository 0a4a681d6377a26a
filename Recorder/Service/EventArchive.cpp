// The way of an event from the working disk to its directory.
#include "Recorder/Service/EventArchive.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <system_error>
#include <utility>

#include "EventStore/EventName.h"
#include "EventStore/Storage.h"
#include "Kbase/Util/Naming.h"
#include "Kbase/Util/TimeMonitor.h"
#include "Ksystem/FileUtils/Kdir.h"
#include "Ksystem/FileUtils/Kfile.h"
#include "Recorder/Service/EventRecord.h"
#include "Recorder/Service/RecoveredEvent.h"
#include "Tavi/GstUtil/Log.h"
#include "Tavi/RecoveryCollect/EventFileName.h"
#include "Tavi/RecoveryCollect/RecoveryCollectManager.h"

namespace Tavi::Recorder {
namespace {

using EventStore::SaveResult;
using PipelineCollect::PipelineCollectType;
namespace fs = std::filesystem;

/// What fits beside a running event on a unit's RAM disk.
constexpr std::size_t MaxWaiting = 4;
/// Products of recovered events until they are events; hidden from whoever lists these.
constexpr const char* RecoveredDir = ".recovered/";

void RemoveTree(const std::string& path) {
  std::string problem;
  if (!EventStore::RemoveTree(path, problem)) Log::Warning(problem);
}

std::time_t GetTime(const fs::path& path) {
  struct stat attributes {};
  return ::stat(path.c_str(), &attributes) == 0 ? attributes.st_mtime : 0;
}

/// The name under which a collector's file would be saved in a power failure; empty for what would not: the preview and
/// what it is made of, which bear other names than a collector's own.
std::string GetBackupName(const std::string& fileName, const std::string& event) {
  const auto file = RecoveryCollect::ParseBackupName(fileName);
  const bool isSaved =
      file && !file->isHalf && file->type != PipelineCollectType::Preview && RecoveryCollect::IsUid(file->event);
  return isSaved ? RecoveryCollect::BuildBackupName(*file, event) : std::string();
}

}  // namespace

EventArchive::EventArchive(const StorageSettings& settings)
    : m_settings(settings),
      m_store(fs::path(settings.eventsDir).parent_path().string(),
              {settings.maxBytes, static_cast<std::uint32_t>(settings.maxEvents), settings.minFreeBytes}),
      m_notes(fs::path(settings.eventsDir).parent_path().string()) {}

bool EventArchive::Open(std::string& problem) {
  if (!m_store.Open(problem)) return false;
  const bool isThere = Ksystem::FileUtils::Kdir(m_settings.workDir).Create();
  if (!isThere || ::access(m_settings.workDir.c_str(), W_OK | X_OK) != 0) {
    problem = "storage.workDir: nothing can be written into \"" + m_settings.workDir +
              "\"; give a directory that can be created or written to";
    return false;
  }
  SaveLeftovers();
  Maintain();
  return true;
}

/// A process that died has left its events here, and the machine has not: they are saved as if power had failed.
void EventArchive::SaveLeftovers() const {
  std::error_code error;
  std::vector<fs::path> left;
  for (const auto& entry : fs::directory_iterator(m_settings.workDir, error)) {
    if (EventStore::IsEventId(entry.path().filename().string())) left.push_back(entry.path());
  }
  if (!left.empty()) Ksystem::FileUtils::Kdir(m_settings.backupDir).Create();
  for (const auto& dir : left) {
    Log::Warning("the event in " + dir.string() + " was not finished: what there is of it is recovered");
    const auto name = Kbase::Util::BuildEventFileName(BuildCrashName(dir.filename().string()), GetTime(dir)) + "_0";
    bool isSaved = true;
    for (const auto& file : fs::directory_iterator(dir, error)) {
      const std::string saved = GetBackupName(file.path().filename().string(), name);
      isSaved = (saved.empty() || Ksystem::FileUtils::Kfile(file.path()).CopyTo(m_settings.backupDir + saved, false)) &&
                isSaved;
    }
    if (isSaved) RemoveTree(dir);
  }
}

void EventArchive::Recover(const Pipeline::PipelineConfig& config) {
  RecoveryCollect::RecoveryCollectInput input{m_settings.restoreDir, m_settings.eventsDir + RecoveredDir,
                                              static_cast<float>(config.camera0.fps),
                                              static_cast<float>(config.camera1.fps)};
  RecoveryCollect::RecoveryCollectOutput output;
  RecoveryCollect::RecoveryCollectManager::MoveBackup(m_settings.backupDir, m_settings.restoreDir);
  RecoveryCollect::RecoveryCollectManager::Collect(input, output);
  auto notes = m_notes.Read();
  ForgetSettled(notes);
  for (const auto& recovered : output.events) SaveRecovered(recovered, config, notes);
  for (const auto& note : notes) {
    const auto& request = note.request;
    std::error_code error;
    // What could not be recovered for want of room may be at the next start.
    if (fs::exists(GetWorkDir(request.id), error)) continue;
    Log::Error(fmt::format(
        "nothing is there of the event {} of {} ({}{}{}): it was interrupted before anything was saved", request.id,
        EventStore::FormatTime(request.timeMs), request.trigger, request.label.empty() ? "" : ", ", request.label));
    m_notes.Remove(request.id);
  }
}

/// A process may have died between an event and the end of its note.
void EventArchive::ForgetSettled(std::vector<EventStore::RequestNote>& notes) {
  const auto events = m_store.List();
  std::erase_if(notes, [&](const EventStore::RequestNote& note) {
    const std::string& id = note.request.id;
    const bool isSettled =
        std::any_of(events.begin(), events.end(), [&id](const auto& event) { return event.id == id; });
    if (isSettled) m_notes.Remove(id);
    return isSettled;
  });
}

void EventArchive::SaveRecovered(const RecoveryCollect::RecoveredEvent& recovered,
                                 const Pipeline::PipelineConfig& config, std::vector<EventStore::RequestNote>& notes) {
  const auto note = TakeNote(recovered, notes);
  auto event = DescribeRecovered(recovered, note, config);
  const std::string id = event.id;
  std::string directory;
  std::string problem;
  const bool keep = note && note->isProtected;
  if (m_store.Save(event, ListSources(recovered.output), keep, directory, problem) != SaveResult::Saved) {
    Log::Error("the interrupted event " + recovered.name + " stays in " + m_settings.eventsDir + RecoveredDir +
               " until the next start: " + problem);
    return;
  }
  ++m_saved;
  m_notes.Remove(id);
  Log::Info("the interrupted event " + recovered.name + " is in " + directory);
}

std::string EventArchive::GetWorkDir(const std::string& id) const {
  return m_settings.workDir + id + "/";
}

void EventArchive::DropWorkDir(const std::string& id) const {
  RemoveTree(GetWorkDir(id));
}

EventResult EventArchive::Save(EventStore::EventDescription& event, const std::vector<EventStore::SourceFile>& sources,
                               const std::string& workId, bool keep) {
  Waiting waiting{std::move(event), sources, workId, keep};
  EventResult result;
  if (!TrySave(waiting, result)) KeepForLater(std::move(waiting), result.problem);
  return result;
}

bool EventArchive::TrySave(Waiting& waiting, EventResult& result) {
  result = {};
  const Kbase::Util::TimeMonitor sinceStart;
  const auto saved = m_store.Save(waiting.event, waiting.sources, waiting.keep, result.directory, result.problem);
  result.id = waiting.event.id;
  result.isSaved = saved == SaveResult::Saved;
  result.files = waiting.event.files.size();
  if (!result.isSaved) return false;
  ++m_saved;
  m_notes.Remove(waiting.workId);
  RemoveTree(GetWorkDir(waiting.workId));
  Log::Info(fmt::format("event {} is in {}, complete within {} ms", result.id, result.directory,
                        sinceStart.Elapsed().count()));
  return true;
}

void EventArchive::KeepForLater(Waiting waiting, const std::string& problem) {
  ++m_failed;
  Log::Error("event " + waiting.event.id + " waits in " + GetWorkDir(waiting.workId) +
             " until it can be saved: " + problem);
  std::optional<Waiting> oldest;
  {
    const std::lock_guard lock(m_mutex);
    m_waiting.push_back(std::move(waiting));
    m_waitingFor = problem;
    if (m_waiting.size() > MaxWaiting) {
      oldest = std::move(m_waiting.front());
      m_waiting.pop_front();
    }
  }
  if (oldest) Discard(*oldest);
}

void EventArchive::Discard(const Waiting& waiting) {
  Log::Error("event " + waiting.event.id +
             " is given up: there was no room for it, and newer ones need the working disk");
  m_notes.Remove(waiting.workId);
  RemoveTree(GetWorkDir(waiting.workId));
}

void EventArchive::Maintain() {
  EventStore::RetentionResult state;
  m_store.Apply(state);
  std::deque<Waiting> waiting;
  {
    const std::lock_guard lock(m_mutex);
    if (state.isFull && !m_state.isFull) Log::Error("events cannot be saved: " + state.problem);
    if (!state.isFull && m_state.isFull) Log::Info("there is room for events again");
    m_state = std::move(state);
    waiting.swap(m_waiting);
  }
  for (EventResult result; !waiting.empty() && TrySave(waiting.front(), result);) waiting.pop_front();
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
  return json;
}

}  // namespace Tavi::Recorder
