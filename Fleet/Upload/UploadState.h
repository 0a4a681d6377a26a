// What is remembered of events from one start to the next.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Ksystem/FileUtils/UniqueFd.h"

namespace Tavi::Upload {

/// How far an event has come. What is not remembered is asked of the far side: the marks only spare that.
enum class Progress { Begun, WithoutStreams, Whole };

struct LastSent {
  std::string event;
  /// UTC, as in event.json.
  std::string time;
};

/// A small file in a directory of which one process at a time has the lock. Each change is on the disk, whole, when the
/// call returns; a change that the disk refuses is logged, and costs asking once more. Thread-bound.
class UploadState {
 public:
  /// Takes the directory, which is made where it is missing, and reads what there is. Marks of another remote are
  /// forgotten. False, with one sentence in `problem`, when another process has it, also one that is only left over.
  [[nodiscard]] bool Open(const std::string& dir, const std::string& remote, std::string& problem);
  /// Whoever inherits it has the lock, too: no rclone of a process that died writes beside one of the next.
  [[nodiscard]] int GetLockFd() const { return m_lock.Get(); }

  [[nodiscard]] std::optional<Progress> Get(const std::string& event) const;
  void Set(const std::string& event, Progress progress);
  /// As if nothing had been known of it.
  void Forget(const std::string& event);
  /// Forgets what is no more on the unit, and gives what of it was begun.
  std::vector<std::string> ForgetGone(const std::set<std::string>& events);
  void CountDeleted();

  /// Events that became whole, or whole but for streams, since there is this file; and those that were removed here.
  [[nodiscard]] std::uint64_t GetSent() const { return m_sent; }
  [[nodiscard]] std::uint64_t GetDeleted() const { return m_deleted; }
  [[nodiscard]] const std::optional<LastSent>& GetLastSent() const { return m_last; }

 private:
  void Load();
  void Save() const;

  std::string m_path;
  std::string m_remote;
  Ksystem::FileUtils::UniqueFd m_lock;
  std::map<std::string, Progress, std::less<>> m_events;
  std::uint64_t m_sent = 0;
  std::uint64_t m_deleted = 0;
  std::optional<LastSent> m_last;
};

}  // namespace Tavi::Upload
