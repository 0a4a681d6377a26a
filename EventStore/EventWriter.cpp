// Makes event directories: complete under their final name, or not there.
#include "EventStore/EventWriter.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <filesystem>
#include <set>
#include <string_view>
#include <system_error>
#include <utility>

#include "EventStore/Access.h"
#include "EventStore/EventList.h"
#include "EventStore/EventName.h"
#include "EventStore/Storage.h"
#include "Ksystem/FileUtils/Kdir.h"

namespace Tavi::EventStore {

using Ksystem::FileUtils::Kdir;

namespace {

/// The resolution of a FAT file system's times, the coarsest of all.
constexpr std::int64_t StepNs = 2'000'000'000;

/// The order in which files are listed.
constexpr std::array<std::string_view, 17> FileTypes{"VideoCamera1",
                                                     "VideoCamera1Stream",
                                                     "VideoCamera1Times",
                                                     "VideoCamera0",
                                                     "VideoCamera0Stream",
                                                     "VideoCamera0Times",
                                                     "Audio",
                                                     "Gps",
                                                     "GpsTimes",
                                                     "Acc",
                                                     "AccTimes",
                                                     "Other",
                                                     "OtherTimes",
                                                     "ThumbnailCamera1",
                                                     "ThumbnailCamera0",
                                                     "Preview",
                                                     "PreviewStill"};

std::ptrdiff_t GetRank(const EventFile& file) {
  return std::find(FileTypes.begin(), FileTypes.end(), file.type) - FileTypes.begin();
}

bool CheckSources(const std::vector<SourceFile>& sources, std::string& problem) {
  std::set<std::string> names;
  for (const SourceFile& source : sources) {
    const std::string name = GetFileName(source.path);
    if (!IsProductName(name)) {
      problem = fmt::format("cannot store {}: an event's file cannot have this name", source.path);
    } else if (!names.insert(name).second) {
      problem = fmt::format("cannot store {}: the event has another file of this name", source.path);
    } else {
      continue;
    }
    return false;
  }
  return true;
}

bool CreateEventsDir(const std::string& eventsDir, std::string& problem) {
  std::error_code error;
  if (!std::filesystem::create_directories(eventsDir, error) && !error) return true;
  if (!error && ::chmod(eventsDir.c_str(), DirectoryAccess) != 0) return Fail("change the mode of", eventsDir, problem);
  const std::string parent = std::filesystem::path(eventsDir).parent_path().string();
  if (!error) return SyncDirectory(parent.empty() ? "." : parent, problem);
  problem = fmt::format("cannot create the directory {}: {}", eventsDir, error.message());
  return false;
}

/// One commit under way.
class CommitRun {
 public:
  CommitRun(const std::string& eventsDir, EventDescription& event, const std::vector<SourceFile>& sources,
            bool isProtected, std::int64_t savedNs, const Chain* chain)
      : m_eventsDir(eventsDir),
        m_event(event),
        m_sources(sources),
        m_isProtected(isProtected),
        m_savedNs(savedNs),
        m_chain(chain) {}
  /// What is not an event by now never will be.
  ~CommitRun() { Undo(); }
  CommitRun(const CommitRun&) = delete;
  CommitRun& operator=(const CommitRun&) = delete;

  bool MakeDirectory(std::string& problem) {
    if (!CheckSources(m_sources, problem) || !CreateEventsDir(m_eventsDir, problem)) return false;
    const std::vector<std::string> names = ListNames(m_eventsDir);
    const auto isTaken = [&names](const std::string& id) {
      return std::any_of(names.begin(), names.end(), [&id](const auto& name) { return name.ends_with("_" + id); });
    };
    while (!IsEventId(m_event.id) || isTaken(m_event.id)) m_event.id = NewEventId();
    const std::string name = BuildEventDirName(m_event);
    m_finalDir = m_eventsDir + "/" + name;
    const std::string newDir = m_eventsDir + "/" + std::string(NewPrefix) + name;
    if (::mkdir(newDir.c_str(), DirectoryAccess) != 0) return Fail("create the directory", newDir, problem);
    m_newDir = newDir;
    return true;
  }
  /// Of the directory while it has none.
  [[nodiscard]] const std::string& GetNewDir() const { return m_newDir; }

  bool TakeFiles(std::string& problem) {
    if (!TransferFiles(m_sources, m_newDir, m_event.files, problem)) return false;
    std::stable_sort(m_event.files.begin(), m_event.files.end(),
                     [](const auto& a, const auto& b) { return GetRank(a) < GetRank(b); });
    return true;
  }

  bool Describe(std::string& problem) {
    m_event.seal.reset();
    if (m_chain != nullptr) m_event.seal = m_chain->MakeSeal();
    m_text = FormatEvent(m_event);
    return WriteSynced(m_newDir + "/" + EventJsonName, m_text, problem, m_savedNs) && Sign(problem) &&
           (!m_isProtected || WriteSynced(m_newDir + "/" + ProtectedMarker, "", problem)) &&
           SyncDirectory(m_newDir, problem);
  }

  bool GiveName(std::string& problem) {
    if (!Rename(m_newDir, m_finalDir, problem)) return false;
    m_isNamed = true;
    if (!SyncDirectory(m_eventsDir, problem)) return false;
    Release();
    return true;
  }

  bool RemoveSources(std::string&) {
    for (const SourceFile& source : m_sources) {
      std::string problem;
      if (::unlink(source.path.c_str()) == 0 || Fail("remove", source.path, problem)) continue;
      LogWarning(problem + "; the event has it");
    }
    // Else a power cut brings them back, and with them the event a second time.
    std::set<std::string> parents;
    for (const SourceFile& source : m_sources) parents.insert(Kdir::GetParentOf(source.path));
    for (const std::string& parent : parents) {
      std::string problem;
      if (!SyncDirectory(parent, problem)) LogWarning(problem);
    }
    return true;
  }

  void Release() { m_newDir.clear(); }
  [[nodiscard]] const std::string& GetFinalDir() const { return m_finalDir; }
  /// Of the description.
  [[nodiscard]] const std::string& GetText() const { return m_text; }

 private:
  bool Sign(std::string& problem) const {
    if (m_chain == nullptr) return true;
    const std::string signature = m_chain->Sign(m_text);
    if (signature.empty()) problem = "the event cannot be signed: out of memory";
    return !signature.empty() && WriteSynced(m_newDir + "/" + SignatureName, signature, problem);
  }
  void Undo() {
    if (m_newDir.empty()) return;
    std::string problem;
    if (m_isNamed && !Rename(m_finalDir, m_newDir, problem)) return LogWarning(problem);
    if (!RemoveTree(m_newDir, problem)) LogWarning(problem);
  }

  const std::string& m_eventsDir;
  EventDescription& m_event;
  const std::vector<SourceFile>& m_sources;
  const bool m_isProtected;
  const std::int64_t m_savedNs;
  const Chain* m_chain;
  std::string m_text;
  /// Empty before there is one and when it is not ours to remove any more.
  std::string m_newDir;
  std::string m_finalDir;
  bool m_isNamed = false;
};

using CommitStep = bool (CommitRun::*)(std::string&);
constexpr std::array<CommitStep, 5> CommitSteps{&CommitRun::MakeDirectory, &CommitRun::TakeFiles, &CommitRun::Describe,
                                                &CommitRun::GiveName, &CommitRun::RemoveSources};

/// Removes one leftover. A directory that was marked as protected in the instant of its removal is an event again.
bool RemoveLeftover(EventWriter& writer, const std::string& eventsDir, const std::string& name, std::string& problem) {
  const std::string path = eventsDir + "/" + name;
  if (!name.starts_with(OldPrefix)) return RemoveTree(path, problem);
  const std::string eventName = name.substr(OldPrefix.size());
  if (Exists(path + "/" + ProtectedMarker)) return Rename(path, eventsDir + "/" + eventName, problem);
  static_cast<void>(writer.NoteRemoved(path, eventName, false));
  return RemoveTree(path, problem);
}

bool IsLeftover(const std::string& name) {
  return (name.starts_with(NewPrefix) || name.starts_with(OldPrefix)) &&
         IsEventDirName(std::string_view(name).substr(NewPrefix.size()));
}

}  // namespace

EventWriter::EventWriter(std::string eventsDir) : m_eventsDir(std::move(eventsDir)), m_lock(m_eventsDir, ".lock") {}

bool EventWriter::Lock(std::string& problem) {
  return CreateEventsDir(m_eventsDir, problem) && m_lock.Take(problem);
}

void EventWriter::Share(const std::string& eventDir) {
  std::string problem;
  if (!ShareDirectory(eventDir, m_group, problem)) TellAccess(problem);
}

/// An event that fewer may read than should is better than none.
void EventWriter::TellAccess(const std::string& problem) {
  if (!std::exchange(m_isAccessTold, true)) LogWarning("not everybody who may can read the events: " + problem);
}

int EventWriter::CleanUp() {
  int count = 0;
  std::string problem;
  if (!OpenToGroup(m_eventsDir, m_group, problem)) TellAccess(problem);
  if (m_chain) m_chain->Open();
  for (const std::string& name : ListNames(m_eventsDir)) {
    if (IsEventDirName(name)) Share(m_eventsDir + "/" + name);
    if (!IsLeftover(name)) continue;
    const bool removed = RemoveLeftover(*this, m_eventsDir, name, problem);
    if (!removed) LogWarning(problem);
    count += removed ? 1 : 0;
  }
  FindNewest();
  if (count > 0) LogInfo(fmt::format("{} interrupted event directories cleaned up in {}", count, m_eventsDir));
  return count;
}

/// Another disk may have been put in the place of the one that was locked.
bool EventWriter::HoldLock(std::string& problem) {
  if (!m_lock.IsTaken() || m_lock.IsCurrent()) return true;
  LogWarning(m_eventsDir + " is another disk than before");
  if (!Lock(problem)) return false;
  CleanUp();
  return true;
}

void EventWriter::FindNewest() {
  const auto events = ListEvents(m_eventsDir);
  m_newestNs = events.empty() ? 0 : events.back().savedNs;
}

/// Now, or behind the newest event where the clock was set back: a unit without a clock battery is in 1970 until its
/// first fix, and what it saves then must not be the first to go.
std::int64_t EventWriter::ChooseSavedNs() {
  if (!m_newestNs) FindNewest();
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return ToNs(now) > *m_newestNs ? ToNs(now) : *m_newestNs + StepNs;
}

bool EventWriter::Commit(EventDescription& event, const std::vector<SourceFile>& sources, bool isProtected,
                         std::string& eventDir, std::string& problem) {
  eventDir.clear();
  problem.clear();
  if (!HoldLock(problem)) return false;
  const std::int64_t savedNs = ChooseSavedNs();
  CommitRun run(m_eventsDir, event, sources, isProtected, savedNs, GetChain());
  for (const CommitStep step : CommitSteps) {
    // The files take after their directory; what somebody has put beside them follows before the event has a name.
    if (step == &CommitRun::TakeFiles || step == &CommitRun::GiveName) Share(run.GetNewDir());
    if (!(run.*step)(problem)) return false;
    if (step == &CommitRun::GiveName && m_chain) m_chain->NoteSaved(BuildEventDirName(event), run.GetText());
  }
  m_newestNs = savedNs;
  eventDir = run.GetFinalDir();
  return true;
}

}  // namespace Tavi::EventStore
