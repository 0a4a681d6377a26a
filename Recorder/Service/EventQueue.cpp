// Events that wait for a free collect manager.
#include "Recorder/Service/EventQueue.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace Tavi::Recorder {
namespace {

constexpr std::size_t MainTakers = EventQueue::Second + 1;
/// How soon a spare asks again whether there is room by now.
constexpr std::chrono::milliseconds RoomPoll{500};

}  // namespace

EventQueue::EventQueue(std::size_t capacity)
    : m_capacity(capacity), m_running(std::min(MainTakers + capacity, MostTakers)) {}

bool EventQueue::Push(EventOrder& order) {
  {
    const std::lock_guard lock(m_mutex);
    if (m_closed || m_orders.size() + CountRunning() >= MainTakers + m_capacity) return false;
    m_orders.push_back(std::move(order));
  }
  m_changed.notify_all();
  return true;
}

/// Once closed there is no use in sparing anybody.
bool EventQueue::IsFor(std::size_t taker) const {
  if (m_orders.empty() || m_closed) return m_closed;
  const auto end = m_running.begin() + static_cast<std::ptrdiff_t>(taker);
  return std::none_of(m_running.begin(), end, [](const Running& running) { return running.id.empty(); });
}

std::optional<EventOrder> EventQueue::Take(std::size_t taker, const RoomCheck& hasRoom) {
  std::unique_lock lock(m_mutex);
  for (;;) {
    m_changed.wait(lock, [&] { return IsFor(taker); });
    if (m_orders.empty()) return std::nullopt;
    if (taker < MainTakers || m_closed) break;
    const auto durations = ListDurations();
    const std::string next = m_orders.front().id;
    lock.unlock();
    const bool isRoom = hasRoom(durations);
    lock.lock();
    // Another one may have taken it meanwhile.
    if (!IsFor(taker) || m_orders.empty() || m_orders.front().id != next) continue;
    if (isRoom) break;
    m_changed.wait_for(lock, RoomPoll);
  }
  EventOrder order = std::move(m_orders.front());
  m_orders.pop_front();
  m_running[taker] = {order.id, order.durationSeconds};
  lock.unlock();
  m_changed.notify_all();
  return order;
}

void EventQueue::Finish(std::size_t taker) {
  {
    const std::lock_guard lock(m_mutex);
    m_running[taker] = {};
  }
  m_changed.notify_all();
}

void EventQueue::Close() {
  {
    const std::lock_guard lock(m_mutex);
    m_closed = true;
  }
  m_changed.notify_all();
}

void EventQueue::FollowWindows() {
  const std::lock_guard lock(m_mutex);
  for (const auto& order : m_orders) {
    if (order.held) order.held->Follow();
  }
}

EventQueue::State EventQueue::Read() const {
  const std::lock_guard lock(m_mutex);
  State state;
  state.waiting = m_orders.size();
  for (const auto& order : m_orders) state.heldBytes += order.held ? order.held->GetBytesBeyondRings() : 0;
  for (const auto& running : m_running) {
    if (!running.id.empty()) state.running.push_back(running.id);
  }
  return state;
}

/// Of all that run, and of the one that would be next.
std::vector<int> EventQueue::ListDurations() const {
  std::vector<int> durations{m_orders.front().durationSeconds};
  for (const auto& running : m_running) {
    if (!running.id.empty()) durations.push_back(running.durationSeconds);
  }
  return durations;
}

std::size_t EventQueue::CountRunning() const {
  return static_cast<std::size_t>(
      std::count_if(m_running.begin(), m_running.end(), [](const Running& running) { return !running.id.empty(); }));
}

}  // namespace Tavi::Recorder
