// Requests whose events are not complete yet.
#include "EventStore/RequestNotes.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

#include "EventStore/Access.h"
#include "EventStore/EventList.h"
#include "EventStore/Storage.h"

namespace Tavi::EventStore {
namespace {

constexpr std::string_view NotePrefix = ".request-";

bool Write(const RequestNote& note, const std::string& dir, std::string& problem) {
  if (::mkdir(dir.c_str(), DirectoryAccess) != 0 && errno != EEXIST) return Fail("create the directory", dir, problem);
  return (!note.isProtected || WriteSynced(dir + "/" + ProtectedMarker, "", problem)) &&
         WriteSynced(dir + "/" + EventJsonName, FormatEvent(note.request), problem) && SyncDirectory(dir, problem);
}

bool Replace(const RequestNote& note, const std::string& dir, std::string& problem) {
  const std::string path = dir + "/" + EventJsonName;
  const std::string aside = path + ".part";
  return WriteSynced(aside, FormatEvent(note.request), problem) && Rename(aside, path, problem) &&
         SyncDirectory(dir, problem);
}

void RemoveNote(const std::string& dir) {
  std::string problem;
  if (!RemoveTree(dir, problem)) LogWarning(problem);
}

}  // namespace

RequestNotes::RequestNotes(std::string eventsDir) : m_eventsDir(std::move(eventsDir)) {}

void RequestNotes::Add(const RequestNote& note) {
  const std::lock_guard lock(m_mutex);
  if (m_settled.erase(note.request.id) > 0) return;
  m_added.insert_or_assign(note.request.id, note);
  std::string problem;
  if (!Write(note, GetPath(note.request.id), problem) || !SyncDirectory(m_eventsDir, problem)) LogWarning(problem);
}

void RequestNotes::Remove(const std::string& id) {
  const std::lock_guard lock(m_mutex);
  if (m_added.erase(id) == 0) m_settled.insert(id);
  RemoveNote(GetPath(id));
}

void RequestNotes::Rewrite(const std::function<bool(RequestNote&)>& change) {
  const std::lock_guard lock(m_mutex);
  for (auto& [id, note] : m_added) {
    std::string problem;
    if (change(note) && !Replace(note, GetPath(id), problem)) LogWarning(problem);
  }
}

std::vector<RequestNote> RequestNotes::Read() {
  const std::lock_guard lock(m_mutex);
  std::vector<RequestNote> notes;
  for (const std::string& name : ListNames(m_eventsDir)) {
    if (!name.starts_with(NotePrefix)) continue;
    std::string problem;
    const std::string dir = m_eventsDir + "/" + name;
    auto request = ReadEvent(dir, problem);
    if (request && GetPath(request->id) == dir) {
      const RequestNote note{std::move(*request), Exists(dir + "/" + ProtectedMarker)};
      m_added.insert_or_assign(note.request.id, note);
      notes.push_back(note);
    } else {
      // What is there and the disk does not give may be had at the next start.
      const bool isUnread = problem.starts_with("cannot read") && Exists(dir + "/" + EventJsonName);
      LogWarning(problem.empty() ? dir + " is not the note of the request that it holds" : problem);
      if (!isUnread) RemoveNote(dir);
    }
  }
  std::stable_sort(notes.begin(), notes.end(),
                   [](const auto& a, const auto& b) { return a.request.timeMs < b.request.timeMs; });
  return notes;
}

std::string RequestNotes::GetPath(const std::string& id) const {
  return (m_eventsDir + "/").append(NotePrefix).append(id);
}

}  // namespace Tavi::EventStore
