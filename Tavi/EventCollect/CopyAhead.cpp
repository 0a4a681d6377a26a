// What a running event's files hold, copied to where it survives before power fails.
#include "Tavi/EventCollect/CopyAhead.h"

#include <unistd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include "Ksystem/FileUtils/Kdir.h"
#include "Tavi/EventCollect/PowerBackup.h"
#include "Tavi/GstUtil/Log.h"
#include "Tavi/PipelineCollect/EntryTimes.h"

namespace Tavi::PipelineCollect {
namespace {

/// How much of a running event a power cut without any warning may take, beside what is not copied yet. Each of the
/// first periods is twice as long as the one before: what the rings held at the request is worth most, and is there
/// within a second.
constexpr std::chrono::milliseconds FirstSyncPeriod{250};
constexpr std::chrono::milliseconds LongestSyncPeriod{2000};
/// Left free, so that the small files of an event find room when power fails.
constexpr std::uintmax_t Reserve = std::uintmax_t{4} << 20;

bool HasRoom(const std::string& dir) {
  std::error_code error;
  const auto available = std::filesystem::space(dir, error).available;
  return error || available > Reserve;
}

std::string GetReason() {
  return std::strerror(errno);
}

}  // namespace

CopyAhead::CopyAhead(const CollectorMap& collectors, std::string dir, std::string name)
    : m_dir(std::move(dir)), m_name(std::move(name)), m_syncPeriod(FirstSyncPeriod) {
  // The small ones first. A companion behind its file, so that it tells of all that is there.
  for (auto type = PowerBackup::SavedTypes.rbegin(); type != PowerBackup::SavedTypes.rend(); ++type) {
    const CollectBase* collector = CollectorSet::Get(collectors, *type);
    if (collector == nullptr || !collector->IsArmed()) continue;
    Add(*collector, {});
    Add(*collector, std::string(TimesSuffix));
  }
}

void CopyAhead::Add(const CollectBase& collector, const std::string& suffix) {
  const std::string& path = collector.GetPath();
  auto file = std::make_unique<CopyAheadFile>(path + suffix, collector.GetBackupPath(m_dir, m_name) + suffix);
  m_items.push_back({collector.GetType(), path, std::move(file)});
}

bool CopyAhead::End(State state) {
  State copying = State::Copying;
  return m_state.compare_exchange_strong(copying, state);
}

void CopyAhead::Drop() {
  End(State::Dropped);
}

void CopyAhead::Leave(const std::string& action, const std::string& path) {
  if (End(State::Left)) m_problem = "cannot " + action + " " + path + ": " + GetReason();
}

std::size_t CopyAhead::StepFile(CopyAheadFile& file, std::vector<char>& block) {
  const std::uint64_t before = file.GetCopied();
  errno = ENOSPC;
  const auto progress = HasRoom(m_dir) ? file.Step(block, m_isFinal) : CopyAheadFile::Progress::NoRoom;
  if (progress == CopyAheadFile::Progress::NoRoom || progress == CopyAheadFile::Progress::Failed) {
    Leave("copy " + file.GetSource() + " ahead to", file.GetAside());
    return 0;
  }
  m_hasNewNames = file.TakeCreated() || m_hasNewNames;
  const std::uint64_t after = file.GetCopied();
  return after > before ? static_cast<std::size_t>(after - before) : 0;
}

/// What grows no more is synced when all of it is there, and let go of.
void CopyAhead::SyncNow(bool hasCopied) {
  const bool isFinal = m_isFinal;
  if ((!isFinal || hasCopied) && Clock::now() - m_syncedAt < m_syncPeriod) return;
  m_syncedAt = Clock::now();
  m_syncPeriod = std::min(2 * m_syncPeriod, LongestSyncPeriod);
  bool isComplete = isFinal;
  for (const Item& item : m_items) {
    if (IsOver()) return;
    if (!item.file->Sync()) return Leave("sync", item.file->GetAside());
    isComplete = isFinal && item.file->LetGo() && isComplete;
  }
  if (std::exchange(m_hasNewNames, false) && !Ksystem::FileUtils::Kdir::TrySync(m_dir)) {
    return Leave("sync the directory", m_dir);
  }
  m_isComplete = isComplete;
}

void CopyAhead::Clear() const {
  if (m_state == State::Saved) return;
  for (const Item& item : m_items) item.file->Remove();
  Ksystem::FileUtils::Kdir::Sync(m_dir);
}

/// Which files are to be saved, of which some may have been removed meanwhile: a stream that is an MP4 by now is as
/// good, one that its collector has removed held nothing.
std::vector<CopyAheadFile*> CopyAhead::Choose(const CollectorMap& collectors) {
  std::vector<CopyAheadFile*> files;
  for (const Item& item : m_items) {
    const CollectBase* collector = CollectorSet::Get(collectors, item.type);
    const bool isMuxed = collector != nullptr && collector->GetPath() != item.collected;
    const bool isOpen = item.file->IsOpen();
    if (item.file->IsSourceThere() || (isMuxed && isOpen)) {
      if (item.file->GetSize() != 0) files.push_back(item.file.get());
    } else if (isOpen) {
      ::unlink(item.file->GetAside().c_str());
    } else if (isMuxed && item.file->GetSource() == item.collected && collector->IsPathAvailable()) {
      m_late.push_back(std::make_unique<CopyAheadFile>(collector->GetPath(), collector->GetBackupPath(m_dir, m_name)));
      files.push_back(m_late.back().get());
    }
  }
  return files;
}

std::optional<bool> CopyAhead::Save(const CollectorMap& collectors) {
  if (!End(State::Saved)) return std::nullopt;
  const bool isWhole = SaveFiles(Choose(collectors));
  // One that still runs hangs in its disk: what it has is saved, but more may come.
  return isWhole && std::ranges::none_of(collectors, [](const auto& entry) { return entry.second->IsRunning(); });
}

/// The disk works on all of them before the first is waited for, so that one commit of its journal does for most.
bool CopyAhead::SaveFiles(std::vector<CopyAheadFile*> files) const {
  std::ranges::sort(files, {}, [](const CopyAheadFile* file) { return file->GetSize(); });
  bool isWhole = true;
  std::vector<CopyAheadFile*> written;
  for (CopyAheadFile* file : files) {
    if (file->WriteRest()) {
      written.push_back(file);
      continue;
    }
    Log::Error("cannot save " + file->GetSource() + " as " + file->GetAside() + ": " + GetReason());
    isWhole = false;
  }
  for (CopyAheadFile* file : files) {
    const bool isWritten = std::ranges::find(written, file) != written.end();
    if (isWritten ? file->Commit() : file->SyncRest()) continue;
    Log::Error("cannot finish " + file->GetAside() + ": " + GetReason());
    isWhole = false;
  }
  return Ksystem::FileUtils::Kdir::Sync(m_dir) && isWhole;
}

}  // namespace Tavi::PipelineCollect
