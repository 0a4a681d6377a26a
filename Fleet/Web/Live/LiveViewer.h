// One browser's place at the live streams.
#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "Fleet/Web/Live/LiveMessage.h"

namespace Tavi::Web {

class Fanout;

/// A queue of messages between the hub and one viewer; LiveHub::AddViewer makes it, letting it go ends it. Thread-safe.
///
/// A viewer that leaves messages of more than 4 s or 8 MiB unread loses what waits and is given nothing more until it
/// reads again: it then continues where it was if that is still kept, else at each camera's newest key frame, with a
/// message {"gap":"camera0"} for each stream ("camera0", "camera1", "sound") of which it has lost something.
class LiveViewer : public std::enable_shared_from_this<LiveViewer> {
 public:
  static constexpr std::chrono::milliseconds LongestUnread{4000};
  static constexpr std::size_t MostUnreadBytes = 8 * 1024 * 1024;

  explicit LiveViewer(std::shared_ptr<Fanout> fanout);
  ~LiveViewer();
  LiveViewer(const LiveViewer&) = delete;
  LiveViewer& operator=(const LiveViewer&) = delete;

  /// The next message, after at most `timeout`. Null when none came, or when HasEnded.
  MessagePtr Read(std::chrono::milliseconds timeout);
  /// No message will come any more: the hub is stopped, or Close was called.
  [[nodiscard]] bool HasEnded() const;
  /// Ends it and wakes who reads.
  void Close();

  /// `wake` is called from the hub's threads, without a lock, when there is something to read after there was nothing,
  /// and at the end; it must neither block nor call this. For servers that do not wait in Read. Once, before reading.
  void SetWake(std::function<void()> wake);

  /// Bytes that wait to be read.
  [[nodiscard]] std::size_t GetUnreadBytes() const;
  /// How often it has lost something.
  [[nodiscard]] std::uint64_t GetGaps() const;

 private:
  friend class Fanout;
  using Clock = std::chrono::steady_clock;
  struct Waiting {
    MessagePtr message;
    Clock::time_point since;
  };

  /// From the fan-out, with its lock held. The wake to be called once that lock is let go; empty for none.
  [[nodiscard]] std::function<void()> Push(const MessagePtr& message, Clock::time_point now);
  void PushLocked(const MessagePtr& message, Clock::time_point now);
  MessagePtr TakeLocked();
  void DropLocked();

  const std::shared_ptr<Fanout> m_fanout;
  /// Taken after the fan-out's, never before.
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  std::deque<Waiting> m_queue;
  std::size_t m_bytes = 0;
  std::function<void()> m_wake;
  /// Of each kind of fragment the number of the last one that was read; empty before the first.
  std::array<std::optional<std::uint64_t>, 7> m_lastRead;
  std::uint64_t m_gaps = 0;
  /// It has lost what waited and is given nothing until it reads.
  bool m_isBehind = false;
  bool m_hasEnded = false;
};

}  // namespace Tavi::Web
