// Bringing an event's files onto the persistent disk, hashed on the way.
#include "EventStore/FileTransfer.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <system_error>
#include <thread>

#include "EventStore/Access.h"
#include "EventStore/Sha256.h"
#include "EventStore/Storage.h"
#include "Ksystem/FileUtils/Kfile.h"
#include "Ksystem/FileUtils/UniqueFd.h"

namespace Tavi::EventStore {
namespace {

using Ksystem::FileUtils::UniqueFd;

constexpr std::size_t BlockBytes = std::size_t{256} << 10;
/// So much is left to gather before the disk is told to begin: writing goes on while the next part is hashed.
constexpr off_t WriteBehindBytes = off_t{2} << 20;
constexpr unsigned int MaxThreads = 4;

/// Copies what `from` has to `to` (-1: nowhere) and hashes it. False, with `problem`, on failure.
class HashedCopy {
 public:
  HashedCopy(const std::string& source, int from, const std::string& dest, int to)
      : m_source(source), m_dest(dest), m_from(from), m_to(to) {}

  bool Run(EventFile& file, std::string& problem) {
    while (true) {
      const ssize_t got = ::read(m_from, m_block.data(), m_block.size());
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) return Fail("read", m_source, problem);
      if (got == 0) break;
      if (!m_hash.Add(m_block.data(), static_cast<std::size_t>(got))) return FailToHash(problem);
      if (!Write(static_cast<std::size_t>(got))) return Fail("write", m_dest, problem);
    }
    file.bytes = static_cast<std::uint64_t>(m_bytes);
    file.sha256 = m_hash.Finish();
    return !file.sha256.empty() || FailToHash(problem);
  }

 private:
  bool FailToHash(std::string& problem) const {
    problem = "cannot hash " + m_source;
    return false;
  }
  bool Write(std::size_t size) {
    m_bytes += static_cast<off_t>(size);
    if (m_to < 0) return true;
    if (!WriteAll(m_to, m_block.data(), size)) return false;
    if (m_bytes - m_begun < WriteBehindBytes) return true;
    // A hint: errors show up in fsync.
    ::sync_file_range(m_to, m_begun, m_bytes - m_begun, SYNC_FILE_RANGE_WRITE);
    m_begun = m_bytes;
    return true;
  }

  const std::string& m_source;
  const std::string& m_dest;
  const int m_from;
  const int m_to;
  off_t m_bytes = 0;
  off_t m_begun = 0;
  std::vector<char> m_block = std::vector<char>(BlockBytes);
  Sha256 m_hash;
};

bool CopyFile(const SourceFile& source, int from, const std::string& dir, EventFile& file, std::string& problem) {
  const std::string dest = dir + "/" + file.name;
  UniqueFd to = UniqueFd::Open(dest, O_WRONLY | O_CREAT | O_EXCL);
  if (!to.IsValid()) return Fail("create", dest, problem);
  ShareFile(to.Get(), dir);
  if (!HashedCopy(source.path, from, dest, to.Get()).Run(file, problem)) return false;
  Ksystem::FileUtils::Kfile(source.path).CopyTimesTo(dest);
  return (::fsync(to.Get()) == 0 && to.Close()) || Fail("write", dest, problem);
}

bool TransferFile(const SourceFile& source, const std::string& dir, EventFile& file, std::string& problem) {
  file.type = source.type;
  file.name = GetFileName(source.path);
  const UniqueFd from = OpenRegularFile(source.path, problem);
  if (!from.IsValid()) return false;
  const std::string dest = dir + "/" + file.name;
  // Whatever speaks against a link (another file system, or one that has none), a copy is as good.
  if (::link(source.path.c_str(), dest.c_str()) != 0) return CopyFile(source, from.Get(), dir, file, problem);
  ShareFile(from.Get(), dir);
  if (!HashedCopy(source.path, from.Get(), dest, -1).Run(file, problem)) return false;
  return ::fsync(from.Get()) == 0 || Fail("write", dest, problem);
}

/// The sources, taken one by one by the threads that work on them.
class TransferRun {
 public:
  TransferRun(const std::vector<SourceFile>& sources, const std::string& dir, std::vector<EventFile>& files)
      : m_sources(sources), m_dir(dir), m_files(files) {}

  void Work() noexcept {
    std::string problem;
    try {
      for (std::size_t i = m_next++; i < m_sources.size() && !m_failed; i = m_next++) {
        if (!TransferFile(m_sources[i], m_dir, m_files[i], problem)) return Report(std::move(problem));
      }
    } catch (const std::exception& error) {
      Report(error.what());
    }
  }

  bool GetResult(std::string& problem) {
    problem = m_problem;
    return !m_failed;
  }

 private:
  void Report(std::string problem) noexcept {
    const std::lock_guard lock(m_mutex);
    if (!m_failed.exchange(true)) m_problem = std::move(problem);
  }

  const std::vector<SourceFile>& m_sources;
  const std::string& m_dir;
  /// Each element is touched by one thread only.
  std::vector<EventFile>& m_files;
  std::atomic<std::size_t> m_next{0};
  std::atomic<bool> m_failed{false};
  std::mutex m_mutex;
  std::string m_problem;
};

/// The caller's thread works, too; where the system has no other to give, it works alone.
void RunOnThreads(TransferRun& run, std::size_t count) {
  std::vector<std::jthread> helpers;
  try {
    while (helpers.size() + 1 < count) {
      helpers.emplace_back([&run] {
        pthread_setname_np(pthread_self(), "eventtransfer");
        run.Work();
      });
    }
  } catch (const std::system_error& error) {
    LogWarning(std::string("fewer threads than wanted write the event: ") + error.what());
  }
  run.Work();
}

}  // namespace

std::string GetFileName(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

bool TransferFiles(const std::vector<SourceFile>& sources, const std::string& dir, std::vector<EventFile>& files,
                   std::string& problem) {
  files.assign(sources.size(), {});
  TransferRun run(sources, dir, files);
  RunOnThreads(run,
               std::min<std::size_t>(sources.size(), std::clamp(std::thread::hardware_concurrency(), 1U, MaxThreads)));
  return run.GetResult(problem);
}

}  // namespace Tavi::EventStore
