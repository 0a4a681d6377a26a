// Events that wait for a free collect manager.
#pragma once

#include <array>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Recorder/Service/EventOrder.h"

namespace Tavi::Recorder {

/// Bounded. The first manager takes whatever comes; the second, which makes no previews, only what comes while the
/// first one is busy. Thread-safe.
class EventQueue {
 public:
  explicit EventQueue(std::size_t capacity);

  /// Takes `order` over. False, and `order` untouched, when so many wait already or the queue is closed.
  [[nodiscard]] bool Push(EventOrder& order);
  /// Blocks until there is an order for that manager, which is busy with it until Finish. Empty once closed and
  /// emptied.
  std::optional<EventOrder> Take(bool second);
  void Finish(bool second);
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
  const std::size_t m_capacity;
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  std::deque<EventOrder> m_orders;
  /// Id of the event that each manager is busy with, empty when it is free.
  std::array<std::string, 2> m_running;
  bool m_closed = false;
};

}  // namespace Tavi::Recorder
