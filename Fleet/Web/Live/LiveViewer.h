// One browser's place at the live streams.
#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
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
class LiveViewer {
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

  // From the fan-out, with its lock held.
  void Push(const MessagePtr& message, Clock::time_point now);
  void BeginAnew();
  void Give(const MessagePtr& message, Clock::time_point now);
  void GiveInit(std::size_t index, const MessagePtr& init, Clock::time_point now);
  void AwaitKey(std::size_t index, bool awaits);
  [[nodiscard]] bool HasBegun(std::size_t index) const;
  /// The number of the fragment that follows what was read.
  [[nodiscard]] std::uint64_t GetWanted(std::size_t index) const;
  void End();

  void GiveLocked(const MessagePtr& message, Clock::time_point now);
  void DropLocked();
  MessagePtr TakeLocked();

  const std::shared_ptr<Fanout> m_fanout;
  /// Taken after the fan-out's, never before.
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  std::deque<Waiting> m_queue;
  std::size_t m_bytes = 0;
  /// What it has read of each stream: the newest init segment and the last fragment's number, empty before the first.
  std::array<MessagePtr, MediaStreams> m_initRead;
  std::array<std::optional<std::uint64_t>, MediaStreams> m_lastRead;
  /// Fragments of that stream are left out up to its next key frame.
  std::array<bool, MediaStreams> m_awaitsKey{};
  std::uint64_t m_gaps = 0;
  /// It has lost what waited and is given nothing until it reads.
  bool m_isBehind = false;
  bool m_hasEnded = false;
};

}  // namespace Tavi::Web
