// The unit's events on persistent storage.
#include "EventStore/EventStore.h"

#include <fmt/format.h>

#include "EventStore/Storage.h"
#include "Ksystem/FileUtils/Kfile.h"

namespace Tavi::EventStore {
namespace {

/// Directory, description, and the last block of each file, which is seldom full.
constexpr std::uint64_t OverheadBytes = std::uint64_t{64} << 10;

std::uint64_t GetBytesNeeded(const std::vector<SourceFile>& sources) {
  std::uint64_t bytes = OverheadBytes;
  for (const SourceFile& source : sources) {
    Ksystem::FileUtils::Kfile file(source.path, true);
    // A missing one is found, and reported, by the commit.
    if (file.Stat()) bytes += file.GetSize();
  }
  return bytes;
}

void LogRemoved(const RetentionResult& result) {
  for (const std::string& name : result.removed) LogInfo(fmt::format("event {} has made room", name));
}

}  // namespace

EventStore::EventStore(const std::string& eventsDir, const RetentionLimits& limits, const FreeSpace& freeSpace)
    : m_eventsDir(eventsDir),
      m_limits(limits),
      m_writer(eventsDir),
      m_retention(eventsDir, freeSpace,
                  [this](const std::string& directory, const std::string& name, bool isRequested) {
                    return m_writer.NoteRemoved(directory, name, isRequested);
                  }) {}

std::uint64_t EventStore::GetSequence() {
  const std::lock_guard lock(m_mutex);
  return m_writer.GetChain() == nullptr ? 0 : m_writer.GetChain()->GetSequence();
}

bool EventStore::Open(std::string& problem) {
  const std::lock_guard lock(m_mutex);
  if (!m_writer.Lock(problem)) return false;
  m_writer.CleanUp();
  return true;
}

SaveResult EventStore::Save(EventDescription& event, const std::vector<SourceFile>& sources, bool isProtected,
                            std::string& eventDir, std::string& problem) {
  const std::uint64_t bytesNeeded = GetBytesNeeded(sources);
  const std::lock_guard lock(m_mutex);
  RetentionResult result;
  const bool hasRoom = m_retention.Apply(m_limits, bytesNeeded, result);
  LogRemoved(result);
  if (hasRoom) {
    const bool isSaved = m_writer.Commit(event, sources, isProtected, eventDir, problem);
    return isSaved ? SaveResult::Saved : SaveResult::Failed;
  }
  problem = result.problem;
  return result.isFull ? SaveResult::Full : SaveResult::Failed;
}

bool EventStore::Apply(RetentionResult& result) {
  const std::lock_guard lock(m_mutex);
  const bool holds = m_retention.Apply(m_limits, 0, result);
  LogRemoved(result);
  return holds;
}

bool EventStore::Remove(const std::string& id, bool evenProtected, std::string& problem) {
  const std::lock_guard lock(m_mutex);
  const bool isRemoved = m_retention.Remove(id, evenProtected, problem);
  if (isRemoved) LogInfo(fmt::format("event {} was removed: somebody has asked for it", id));
  return isRemoved;
}

bool EventStore::SetProtected(const std::string& id, bool isProtected, std::string& problem) const {
  return Tavi::EventStore::SetProtected(m_eventsDir, id, isProtected, problem);
}

}  // namespace Tavi::EventStore
