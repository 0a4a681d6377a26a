// Keeps the events within the space that they may take.
#include "EventStore/Retention.h"

#include <fmt/format.h>
#include <unistd.h>

#include <span>
#include <utility>

#include "EventStore/EventDescription.h"
#include "EventStore/EventName.h"
#include "EventStore/Storage.h"
#include "Ksystem/DiskUtils/DiskBase.h"

namespace Tavi::EventStore {
namespace {

constexpr double BytesPerMB = 1024.0 * 1024.0;

std::optional<std::uint64_t> AskSystem(const std::string& path) {
  Ksystem::DiskUtils::DiskBase disk(path);
  if (!disk.LoadDiskInfo()) return std::nullopt;
  return static_cast<std::uint64_t>(disk.GetFreeMB() * BytesPerMB);
}

void Take(const EventEntry& entry, RetentionResult& result) {
  result.bytesUsed -= entry.bytes;
  --result.events;
}

bool Holds(const RetentionLimits& limits, std::uint64_t bytesNeeded, const RetentionResult& state) {
  const std::uint32_t added = bytesNeeded > 0 ? 1 : 0;
  return (limits.maxBytes == 0 || state.bytesUsed + bytesNeeded <= limits.maxBytes) &&
         (limits.maxEvents == 0 || state.events + added <= limits.maxEvents) && state.freeBytes >= bytesNeeded &&
         state.freeBytes - bytesNeeded >= limits.minFreeBytes;
}

/// What would be left if every one of these events went that may go.
RetentionResult ForeseeLeast(std::span<const EventEntry> entries, RetentionResult state) {
  for (const EventEntry& entry : entries) {
    if (entry.isProtected) continue;
    Take(entry, state);
    state.freeBytes += entry.bytes;
  }
  return state;
}

/// Which limit it is that cannot be held by `least`, which is all that must stay.
std::string NameLimit(const RetentionLimits& limits, std::uint64_t bytesNeeded, const RetentionResult& least) {
  const std::uint32_t added = bytesNeeded > 0 ? 1 : 0;
  if (limits.maxEvents != 0 && least.events + added > limits.maxEvents) {
    return fmt::format("maxEvents allows {}, and {} of them may not go", limits.maxEvents, least.events);
  }
  if (limits.maxBytes != 0 && least.bytesUsed + bytesNeeded > limits.maxBytes) {
    return fmt::format("maxBytes allows {}, {} may not go, and {} are needed", limits.maxBytes, least.bytesUsed,
                       bytesNeeded);
  }
  return fmt::format("{} bytes can be free, {} are needed, and minFreeBytes keeps {}", least.freeBytes, bytesNeeded,
                     limits.minFreeBytes);
}

bool ReportFull(const std::string& eventsDir, const std::string& limit, RetentionResult& result) {
  result.isFull = true;
  result.problem = fmt::format("there is no room in {}: {}", eventsDir, limit);
  return false;
}

void RemoveAllBut(const std::string& dir, const std::string& kept) {
  for (const std::string& name : ListNames(dir)) {
    if (name != kept) ::unlink((dir + "/" + name).c_str());
  }
}

}  // namespace

Retention::Retention(std::string eventsDir, FreeSpace freeSpace, NoteRemoval noteRemoval)
    : m_eventsDir(std::move(eventsDir)),
      m_lister(m_eventsDir),
      m_freeSpace(freeSpace ? std::move(freeSpace) : AskSystem),
      m_noteRemoval(std::move(noteRemoval)) {}

bool Retention::MeasureFree(RetentionResult& result) {
  const auto free = m_freeSpace(m_eventsDir);
  result.freeBytes = free.value_or(0);
  // Not knowing is no reason to remove anything.
  if (!free) result.problem = fmt::format("cannot tell the free space of {}", m_eventsDir);
  return free.has_value();
}

bool Retention::RemoveEvent(const std::string& name, Removal removal, bool& isKept, std::string& problem) {
  const std::string path = m_eventsDir + "/" + name;
  const std::string oldPath = m_eventsDir + "/" + std::string(OldPrefix) + name;
  if (!Rename(path, oldPath, problem)) return false;
  isKept = !removal.evenProtected && Exists(oldPath + "/" + ProtectedMarker);
  if (isKept) return Rename(oldPath, path, problem);
  // Else a power cut could bring back the name, and not the files.
  if (!SyncDirectory(m_eventsDir, problem)) return false;
  // Where there is no room for the note either, the event's description outlives its other files by a moment.
  const bool isNoted = !m_noteRemoval || m_noteRemoval(oldPath, name, removal.isRequested);
  if (!isNoted) RemoveAllBut(oldPath, EventJsonName);
  if (!isNoted) static_cast<void>(m_noteRemoval(oldPath, name, removal.isRequested));
  return RemoveTree(oldPath, problem);
}

bool Retention::Remove(const std::string& id, bool evenProtected, std::string& problem) {
  for (const std::string& name : ListNames(m_eventsDir)) {
    if (!IsEventDirName(name) || GetEventId(name) != id || !IsDirectory(m_eventsDir + "/" + name)) continue;
    bool isKept = false;
    if (!RemoveEvent(name, {true, evenProtected}, isKept, problem)) return false;
    if (isKept)
      problem = fmt::format("event {} is protected and stays; evenProtected (tavi-ctl: --protected) removes it", id);
    return !isKept;
  }
  problem = fmt::format("there is no event {} in {}", id, m_eventsDir);
  return false;
}

bool Retention::Apply(const RetentionLimits& limits, std::uint64_t bytesNeeded, RetentionResult& result) {
  result = {};
  const std::vector<EventEntry> entries = m_lister.List();
  result.events = static_cast<std::uint32_t>(entries.size());
  for (const EventEntry& entry : entries) result.bytesUsed += entry.bytes;
  if (!MeasureFree(result)) return false;
  for (std::span<const EventEntry> rest(entries); !Holds(limits, bytesNeeded, result); rest = rest.subspan(1)) {
    // Each time anew, for others fill the disk meanwhile, and no event goes in vain.
    const RetentionResult least = ForeseeLeast(rest, result);
    if (!Holds(limits, bytesNeeded, least)) {
      return ReportFull(m_eventsDir, NameLimit(limits, bytesNeeded, least), result);
    }
    const EventEntry& entry = rest.front();
    bool isKept = entry.isProtected;
    if (!isKept && !RemoveEvent(entry.name, {}, isKept, result.problem)) return false;
    if (isKept) continue;
    Take(entry, result);
    result.removed.push_back(entry.name);
    if (!MeasureFree(result)) return false;
  }
  return true;
}

}  // namespace Tavi::EventStore
