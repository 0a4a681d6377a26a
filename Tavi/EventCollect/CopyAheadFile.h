// The copy of one growing file, begun before it is needed.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "Ksystem/FileUtils/UniqueFd.h"

namespace Tavi::PipelineCollect {

/// Follows a file that is only ever appended to. Until Commit the copy stands under its aside name (AsideFile), so
/// whoever finds it knows that it is the beginning of one.
///
/// Two threads: the one that copies ahead calls Step, Sync, LetGo and Remove; the one that saves calls WriteRest and
/// Commit, without waiting for the other, which may have little of the processor. Both write the same bytes to the same
/// places, so it does no harm when they meet; no lock is held while either waits for the disk.
class CopyAheadFile {
 public:
  using Clock = std::chrono::steady_clock;

  /// `dest` is the whole copy's path.
  CopyAheadFile(std::string source, std::string dest);

  enum class Progress { Idle, Copied, NoRoom, Failed };
  /// Copies at most a block's worth of what is there and has not been copied, and waits until the disk has it. Little
  /// waits for more, up to a second; with `isFinal` nothing does. errno tells of NoRoom and Failed.
  [[nodiscard]] Progress Step(std::vector<char>& block, bool isFinal);
  /// Makes what was copied survive a power cut. False, with errno set, on failure.
  [[nodiscard]] bool Sync();
  /// True when all of a source that grows no more is copied and synced; the source is let go of then, as it may have
  /// been removed already and takes room as long as it is open.
  [[nodiscard]] bool LetGo();
  void Remove() const;
  /// The copy has been created since this was asked last.
  [[nodiscard]] bool TakeCreated() { return m_isCreated && !std::exchange(m_isCreatedTold, true); }

  /// Writes what the copy lacks and lets the disk begin with it. False, with errno set, when there is no source, or it
  /// cannot be read or written.
  [[nodiscard]] bool WriteRest();
  /// Syncs the copy and gives it its name; the directory's sync is the caller's. False, with errno set, on failure.
  [[nodiscard]] bool Commit();
  /// Syncs what there is, of which the rest found no room. True also when there is nothing.
  [[nodiscard]] bool SyncRest() const;

  [[nodiscard]] const std::string& GetSource() const { return m_source; }
  [[nodiscard]] const std::string& GetAside() const { return m_aside; }
  /// Of the source; 0 when it is not known.
  [[nodiscard]] std::uint64_t GetSize() const;
  /// The copy has been begun.
  [[nodiscard]] bool IsOpen() const { return Share().to != nullptr; }
  /// The source has its name.
  [[nodiscard]] bool IsSourceThere() const;
  [[nodiscard]] std::uint64_t GetCopied() const { return m_copied.load(std::memory_order_acquire); }

 private:
  using SharedFd = std::shared_ptr<Ksystem::FileUtils::UniqueFd>;
  struct Files {
    SharedFd from;
    SharedFd to;
  };

  [[nodiscard]] Files Share() const;
  [[nodiscard]] Files Open(int flags);
  Files Publish(const Files& opened);
  Progress OpenAhead();

  const std::string m_source;
  const std::string m_dest;
  const std::string m_aside;
  mutable std::mutex m_mutex;
  /// Under the mutex; both or none, but for a source that was let go of.
  Files m_files;
  /// How far the copy goes; the saver begins there.
  std::atomic<std::uint64_t> m_copied{0};
  /// The rest belongs to the thread that copies ahead.
  bool m_isCreated = false;
  bool m_isCreatedTold = false;
  bool m_isUnsynced = false;
  Clock::time_point m_copiedAt;
};

}  // namespace Tavi::PipelineCollect
