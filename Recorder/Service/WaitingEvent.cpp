// A complete event that waits for room.
#include "Recorder/Service/WaitingEvent.h"

#include <filesystem>
#include <utility>

#include "EventStore/EventList.h"
#include "EventStore/Storage.h"
#include "Ksystem/FileUtils/Kdir.h"
#include "Ksystem/FileUtils/Kfile.h"

namespace Tavi::Recorder {
namespace {

using EventStore::EventFile;
using EventStore::SourceFile;
using Ksystem::FileUtils::Kdir;
using Ksystem::FileUtils::Kfile;

/// What a file that was not taken over yet has in the place of its hash.
constexpr std::size_t HashDigits = 64;
constexpr const char* AsideSuffix = ".part/";

/// The sources stand for the files that the description will list.
bool WriteInto(const std::string& dir, const WaitingEvent& waiting, std::string& problem) {
  EventStore::EventDescription event = waiting.event;
  event.files.clear();
  for (const SourceFile& source : waiting.sources) {
    event.files.push_back(
        EventFile{source.type, EventStore::GetFileName(source.path), 0, std::string(HashDigits, '0')});
  }
  return (!waiting.keep || EventStore::WriteSynced(dir + EventStore::ProtectedMarker, "", problem)) &&
         EventStore::WriteSynced(dir + EventStore::EventJsonName, EventStore::FormatEvent(event), problem) &&
         EventStore::SyncDirectory(dir, problem);
}

}  // namespace

bool WriteDown(const WaitingEvent& waiting, std::string& problem) {
  return WriteInto(waiting.dir, waiting, problem);
}

std::optional<WaitingEvent> ReadWaiting(const std::string& dir) {
  if (!EventStore::Exists(dir + EventStore::EventJsonName)) return std::nullopt;
  std::string problem;
  auto event = EventStore::ReadEvent(dir, problem);
  if (!event) {
    EventStore::LogWarning(problem);
    return std::nullopt;
  }
  WaitingEvent waiting;
  for (const EventFile& file : event->files) {
    if (EventStore::Exists(dir + file.name)) waiting.sources.push_back({file.type, dir + file.name});
  }
  waiting.noteId = event->id;
  waiting.dir = dir;
  waiting.keep = EventStore::Exists(dir + EventStore::ProtectedMarker);
  waiting.event = std::move(*event);
  waiting.event.files.clear();
  return waiting;
}

bool CopyWaiting(const WaitingEvent& waiting, const std::string& dir, std::string& problem) {
  const std::string path = dir.substr(0, dir.size() - 1);
  const std::string aside = path + AsideSuffix;
  if (!EventStore::RemoveTree(aside, problem) || !Kdir(aside).Create()) return false;
  for (const SourceFile& source : waiting.sources) {
    if (Kfile(source.path).CopyTo(aside + EventStore::GetFileName(source.path), false)) continue;
    problem = source.path + " cannot be copied";
    std::string ignored;
    static_cast<void>(EventStore::RemoveTree(aside, ignored));
    return false;
  }
  return WriteInto(aside, waiting, problem) && EventStore::Rename(aside, path, problem) &&
         EventStore::SyncDirectory(Kdir::GetParentOf(path), problem);
}

}  // namespace Tavi::Recorder
