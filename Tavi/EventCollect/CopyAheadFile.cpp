// The copy of one growing file, begun before it is needed.
#include "Tavi/EventCollect/CopyAheadFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <utility>

#include "Ksystem/FileUtils/AsideFile.h"

namespace Tavi::PipelineCollect {
namespace {

using Ksystem::FileUtils::UniqueFd;

/// Less than this is not worth an operation of the disk, which writes whole blocks each time.
constexpr std::uint64_t LeastBytes = 64 << 10;
/// After so long it is copied all the same.
constexpr std::chrono::seconds LongestHold{1};
constexpr std::size_t RestBlock = std::size_t{1} << 20;

std::uint64_t GetBytes(const UniqueFd& file) {
  struct stat attributes {};
  return ::fstat(file.Get(), &attributes) == 0 ? static_cast<std::uint64_t>(attributes.st_size) : 0;
}

bool IsSame(const UniqueFd& first, const UniqueFd& second) {
  struct stat a {};
  struct stat b {};
  return ::fstat(first.Get(), &a) == 0 && ::fstat(second.Get(), &b) == 0 && a.st_ino == b.st_ino;
}

/// Copies up to a block from `offset` on to the same place. Bytes; 0 at the file's end, -1 with errno set on failure.
ssize_t CopyBlock(const UniqueFd& from, const UniqueFd& to, std::uint64_t offset, std::vector<char>& block) {
  ssize_t got = 0;
  do {
    got = ::pread(from.Get(), block.data(), block.size(), static_cast<off_t>(offset));
  } while (got < 0 && errno == EINTR);
  for (ssize_t done = 0; done < got;) {
    const ssize_t put = ::pwrite(to.Get(), block.data() + done, static_cast<std::size_t>(got - done),
                                 static_cast<off_t>(offset) + done);
    if (put < 0 && errno != EINTR) return -1;
    if (put > 0) done += put;
  }
  return got;
}

/// Lets the disk write that part; with `wait` until it has. No promise, and none is needed: a file system that does
/// not know of it writes with the next sync.
void WriteBack(const UniqueFd& file, std::uint64_t offset, std::uint64_t bytes, bool wait) {
  const unsigned int waits = wait ? SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WAIT_AFTER : 0;
  ::sync_file_range(file.Get(), static_cast<off_t>(offset), static_cast<off_t>(bytes), SYNC_FILE_RANGE_WRITE | waits);
}

}  // namespace

CopyAheadFile::CopyAheadFile(std::string source, std::string dest)
    : m_source(std::move(source)),
      m_dest(std::move(dest)),
      m_aside(Ksystem::FileUtils::AsideFile::GetAsidePathOf(m_dest)) {}

CopyAheadFile::Files CopyAheadFile::Share() const {
  const std::lock_guard lock(m_mutex);
  return m_files;
}

/// Who comes second takes what the first has opened. Who comes so late that the saver has given the copy its name has
/// made a new one, which nobody needs.
CopyAheadFile::Files CopyAheadFile::Open(int flags) {
  Files opened{std::make_shared<UniqueFd>(UniqueFd::Open(m_source, O_RDONLY)), {}};
  if (!opened.from->IsValid()) return {};
  opened.to = std::make_shared<UniqueFd>(UniqueFd::Open(m_aside, O_WRONLY | O_CREAT | flags));
  if (!opened.to->IsValid()) return {};
  Files files = Publish(opened);
  if (!IsSame(*files.to, *opened.to)) ::unlink(m_aside.c_str());
  return files;
}

CopyAheadFile::Files CopyAheadFile::Publish(const Files& opened) {
  const std::lock_guard lock(m_mutex);
  if (!m_files.to) m_files = opened;
  return m_files;
}

/// A file that stands there already is somebody else's.
CopyAheadFile::Progress CopyAheadFile::OpenAhead() {
  struct stat attributes {};
  if (::stat(m_source.c_str(), &attributes) != 0 || attributes.st_size == 0) return Progress::Idle;
  if (Open(O_EXCL).to) {
    m_isCreated = true;
    return Progress::Copied;
  }
  if (errno == ENOENT && ::access(m_source.c_str(), F_OK) != 0) return Progress::Idle;
  return errno == ENOSPC ? Progress::NoRoom : Progress::Failed;
}

CopyAheadFile::Progress CopyAheadFile::Step(std::vector<char>& block, bool isFinal) {
  Files files = Share();
  if (!files.to) {
    const Progress opened = OpenAhead();
    if (opened != Progress::Copied) return opened;
    files = Share();
  }
  if (!files.from) return Progress::Idle;
  const std::uint64_t size = GetBytes(*files.from);
  // An entry that did not fit was cut off again: what is copied of it goes with the rest.
  const std::uint64_t offset = std::min(GetCopied(), size);
  const bool isLittle = size - offset < LeastBytes && Clock::now() - m_copiedAt < LongestHold;
  if (size == offset || (isLittle && !isFinal)) return Progress::Idle;
  const ssize_t copied = CopyBlock(*files.from, *files.to, offset, block);
  if (copied < 0) return errno == ENOSPC ? Progress::NoRoom : Progress::Failed;
  m_isUnsynced = true;
  m_copied.store(offset + static_cast<std::uint64_t>(copied), std::memory_order_release);
  m_copiedAt = Clock::now();
  WriteBack(*files.to, offset, static_cast<std::uint64_t>(copied), true);
  // Nobody reads it before the next start.
  ::posix_fadvise(files.to->Get(), static_cast<off_t>(offset), copied, POSIX_FADV_DONTNEED);
  return copied > 0 ? Progress::Copied : Progress::Idle;
}

bool CopyAheadFile::Sync() {
  const Files files = Share();
  if (!files.to || !std::exchange(m_isUnsynced, false)) return true;
  return ::fdatasync(files.to->Get()) == 0;
}

bool CopyAheadFile::LetGo() {
  const Files files = Share();
  if (!files.from) return files.to != nullptr || ::access(m_source.c_str(), F_OK) != 0;
  if (m_isUnsynced || GetBytes(*files.from) != GetCopied()) return false;
  const std::lock_guard lock(m_mutex);
  m_files.from.reset();
  return true;
}

void CopyAheadFile::Remove() const {
  if (m_isCreated) ::unlink(m_aside.c_str());
}

bool CopyAheadFile::WriteRest() {
  Files files = Share();
  if (!files.to) files = Open(0);
  if (!files.to) return false;
  if (!files.from) return true;
  const std::uint64_t size = GetBytes(*files.from);
  const std::uint64_t begin = std::min(GetCopied(), size);
  std::vector<char> block(static_cast<std::size_t>(std::min<std::uint64_t>(size - begin, RestBlock)));
  for (std::uint64_t offset = begin; offset < size;) {
    const ssize_t copied = CopyBlock(*files.from, *files.to, offset, block);
    if (copied < 0) return false;
    if (copied == 0) break;
    offset += static_cast<std::uint64_t>(copied);
  }
  if (GetBytes(*files.to) > size && ::ftruncate(files.to->Get(), static_cast<off_t>(size)) != 0) return false;
  WriteBack(*files.to, begin, size - begin, false);
  return true;
}

bool CopyAheadFile::Commit() {
  const Files files = Share();
  return files.to && ::fsync(files.to->Get()) == 0 && std::rename(m_aside.c_str(), m_dest.c_str()) == 0;
}

bool CopyAheadFile::SyncRest() const {
  const Files files = Share();
  return !files.to || ::fsync(files.to->Get()) == 0;
}

std::uint64_t CopyAheadFile::GetSize() const {
  const Files files = Share();
  if (files.from) return GetBytes(*files.from);
  if (files.to) return GetCopied();
  struct stat attributes {};
  return ::stat(m_source.c_str(), &attributes) == 0 ? static_cast<std::uint64_t>(attributes.st_size) : 0;
}

bool CopyAheadFile::IsSourceThere() const {
  return ::access(m_source.c_str(), F_OK) == 0;
}

}  // namespace Tavi::PipelineCollect
