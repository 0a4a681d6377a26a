// Events that wait for a free collect manager.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Recorder/Service/EventOrder.h"

namespace Tavi::Recorder {

/// Bounded. Its takers are numbered from 0: each takes an order only while all before it are busy. The first two take
/// whatever comes; those behind them are spares, which keep what more is asked for at once from being in memory alone,
/// and take it when the working disk has room for one event more. Thread-safe.
class EventQueue {
 public:
  /// Whether events of so many seconds each can be on the working disk at once. Called without a lock.
  using RoomCheck = std::function<bool(const std::vector<int>& durationsSeconds)>;

  /// The taker of the second collect manager; the spares are behind it.
  static constexpr std::size_t Second = 1;
  /// How many events are collected at once, at most: each has some forty descriptors, its copies ahead among them, of
  /// the 1,024 that a process usually may have. More events than that are a storm, and wait in memory.
  static constexpr std::size_t MostTakers = 18;

  /// `capacity`: requests that are accepted beyond the two of the first takers.
  explicit EventQueue(std::size_t capacity);

  [[nodiscard]] std::size_t GetTakers() const { return m_running.size(); }
  /// Takes `order` over. False, and `order` untouched, when so many are under way already or the queue is closed.
  [[nodiscard]] bool Push(EventOrder& order);
  /// Blocks until there is an order for that taker, which is busy with it until Finish. `hasRoom` is asked by spares.
  /// Empty once closed and emptied.
  std::optional<EventOrder> Take(std::size_t taker, const RoomCheck& hasRoom);
  void Finish(std::size_t taker);
  /// Nothing is taken over any more; what waits is still handed out.
  void Close();

  /// Keeps the windows of those that wait from being overwritten; to be called every second. Waits for no disk.
  void FollowWindows();

  struct State {
    std::size_t waiting = 0;
    /// What the windows of those that wait keep in memory beyond the rings.
    std::uint64_t heldBytes = 0;
    /// Ids of the events that are being collected or saved.
    std::vector<std::string> running;
  };
  [[nodiscard]] State Read() const;

 private:
  struct Running {
    /// Of its event, empty when the taker is free.
    std::string id;
    int durationSeconds = 0;
  };

  [[nodiscard]] bool IsFor(std::size_t taker) const;
  [[nodiscard]] std::vector<int> ListDurations() const;
  [[nodiscard]] std::size_t CountRunning() const;

  const std::size_t m_capacity;
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  std::deque<EventOrder> m_orders;
  /// By taker.
  std::vector<Running> m_running;
  bool m_closed = false;
};

}  // namespace Tavi::Recorder
