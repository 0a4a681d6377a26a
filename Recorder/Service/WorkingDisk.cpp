// The directories of the events that are collected, and what a process that died has left in them.
#include "Recorder/Service/WorkingDisk.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "EventStore/EventName.h"
#include "EventStore/Storage.h"
#include "Kbase/Util/Naming.h"
#include "Ksystem/FileUtils/AsideFile.h"
#include "Ksystem/FileUtils/Failure.h"
#include "Ksystem/FileUtils/Kdir.h"
#include "Ksystem/FileUtils/Kfile.h"
#include "Recorder/Service/RecoveredEvent.h"
#include "Tavi/EventCollect/CopyAheadFile.h"
#include "Tavi/GstUtil/Log.h"
#include "Tavi/PipelineCollect/CollectBase.h"
#include "Tavi/PipelineCollect/EntryTimes.h"
#include "Tavi/RecoveryCollect/EventFileName.h"

namespace Tavi::Recorder {
namespace {

using Ksystem::FileUtils::Kdir;
using Ksystem::FileUtils::Kfile;
using PipelineCollect::CollectBase;
using PipelineCollect::PipelineCollectType;
using RecoveryCollect::EventFileName;

/// Before the id, in the name of a directory that is on its way out.
constexpr std::string_view OldPrefix = ".old_";
using PipelineCollect::StreamExtension;
constexpr std::string_view Mp4Extension = ".mp4";
/// Where less than this is left beside a copy, what failed may have failed for want of room.
constexpr std::uintmax_t Margin = std::uintmax_t{1} << 20;

std::time_t GetTime(const std::string& path) {
  struct stat attributes {};
  return ::stat(path.c_str(), &attributes) == 0 ? attributes.st_mtime : 0;
}

/// True for what a collector has written, and nobody else: the preview's own sound is none of the event's.
bool IsCollected(const EventFileName& name) {
  return !name.isHalf && name.type != PipelineCollectType::Preview && RecoveryCollect::IsUid(name.event);
}

/// The name under which the file would be saved in a power failure; empty for what would not. A stream that is an MP4
/// already is saved as that, and its companion with it.
std::string GetBackupName(const std::string& dir, const std::string& fileName, const std::string& event) {
  const auto parsed = RecoveryCollect::ParseBackupName(fileName);
  if (!parsed || !IsCollected(*parsed) || !CollectBase::IsPathAvailable(dir + fileName)) return {};
  std::string name = fileName;
  name.replace(name.find(parsed->event), parsed->event.size(), event);
  const auto extension = fileName.find(StreamExtension);
  if (extension == std::string::npos) return name;
  const bool hasMp4 = CollectBase::IsPathAvailable(dir + fileName.substr(0, extension) + std::string(Mp4Extension));
  if (!hasMp4) return name;
  return parsed->isTimes ? name.replace(name.find(StreamExtension), StreamExtension.size(), Mp4Extension) : "";
}

/// The name under which files of that event are in one of the directories already, by power that failed or an
/// interrupted start; empty when there are none.
std::string FindSavedName(const std::string& id, const std::vector<std::string>& dirs) {
  for (const std::string& dir : dirs) {
    for (const std::string& file : EventStore::ListNames(dir)) {
      const auto parsed = RecoveryCollect::ParseBackupName(file);
      if (parsed && GetInterruptedId(parsed->event) == id) return parsed->event;
    }
  }
  return {};
}

/// Copies a file, of which the beginning may have been copied ahead: that stays what it is until the rest is there, as
/// power may fail now. What could be copied stays when not all could. The directory's sync is the caller's.
bool Complete(const std::string& from, const std::string& to) {
  PipelineCollect::CopyAheadFile copy(from, to);
  if (copy.WriteRest() && copy.Commit()) return true;
  Ksystem::FileUtils::LogFailure("copy " + from + " to", copy.GetAside());
  if (!copy.SyncRest()) Ksystem::FileUtils::LogFailure("sync", copy.GetAside());
  if (!CollectBase::IsPathAvailable(copy.GetAside())) Kfile(copy.GetAside()).Remove();
  return false;
}

}  // namespace

void WorkingDisk::Remove(const std::string& dir) {
  const std::string path = dir.substr(0, dir.find_last_not_of('/') + 1);
  const std::string parent = Kdir::GetParentOf(path);
  const std::string old = parent + "/" + std::string(OldPrefix) + path.substr(path.rfind('/') + 1);
  std::string problem;
  if (!EventStore::Exists(path)) return;
  // Half of it would be taken for an event.
  const bool isRenamed = EventStore::Rename(path, old, problem) && EventStore::SyncDirectory(parent, problem);
  if (!isRenamed || !EventStore::RemoveTree(old, problem)) Log::Warning(problem);
}

bool WorkingDisk::IsHalfRemoved(std::string_view name) {
  return name.starts_with(OldPrefix);
}

void WorkingDisk::TakeLeft(const std::vector<std::string>& known, std::vector<WaitingEvent>& waiting) const {
  for (const std::string& name : EventStore::ListNames(m_settings.workDir)) {
    const std::string dir = GetDir(name);
    std::string problem;
    if (IsHalfRemoved(name) && !EventStore::RemoveTree(dir, problem)) Log::Warning(problem);
    if (!EventStore::IsEventId(name)) continue;
    if (std::find(known.begin(), known.end(), name) != known.end()) {
      Remove(dir);
    } else if (auto complete = ReadWaiting(dir)) {
      waiting.push_back(std::move(*complete));
    } else {
      SaveLeft(name);
    }
  }
}

/// A process that died has left its event here, and the machine has not: it is saved as if power had failed.
void WorkingDisk::SaveLeft(const std::string& id) const {
  const std::string dir = GetDir(id);
  Log::Warning("the event in " + dir + " was not finished: what there is of it is recovered");
  std::vector<std::string> files;
  if (const auto error = Kdir(dir).List(files)) {
    Log::Error("cannot read " + dir + ": " + error.message() + "; it stays");
    return;
  }
  const std::string saved = FindSavedName(id, {m_settings.backupDir, m_settings.restoreDir});
  const std::string event =
      saved.empty() ? Kbase::Util::BuildEventFileName(BuildCrashName(id), GetTime(dir)) + "_0" : saved;
  bool isSaved = Kdir(m_settings.backupDir).Create();
  std::vector<std::string> copies;
  for (const std::string& file : files) {
    const std::string name = GetBackupName(dir, file, event);
    const bool isThere = name.empty() || EventStore::Exists(m_settings.backupDir + name) ||
                         EventStore::Exists(m_settings.restoreDir + name);
    if (isThere) continue;
    // Also of one that is not tried any more: its beginning may have been copied ahead.
    copies.push_back(m_settings.backupDir + name);
    isSaved = isSaved && SaveFile(dir + file, name);
  }
  if (isSaved && Kdir::Sync(m_settings.backupDir)) return Remove(dir);
  // An event without the rest of it would take the place of all of it.
  for (const std::string& copy : copies) {
    Kfile(copy).Remove();
    Kfile(Ksystem::FileUtils::AsideFile::GetAsidePathOf(copy)).Remove();
  }
  Log::Error("the event in " + dir + " waits there for room, and is tried again at the next start");
}

/// False for want of room. Of a file that cannot be read to its end, not even at a second try, the beginning is kept.
bool WorkingDisk::SaveFile(const std::string& path, const std::string& name) const {
  const std::string copy = m_settings.backupDir + name;
  if (Complete(path, copy) || Complete(path, copy)) return true;
  std::error_code error;
  const auto size = std::filesystem::file_size(path, error);
  return !error && std::filesystem::space(m_settings.backupDir, error).available > size + Margin;
}

}  // namespace Tavi::Recorder
