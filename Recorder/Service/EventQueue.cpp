// Events that wait for a free collect manager.
#include "Recorder/Service/EventQueue.h"

#include <algorithm>
#include <utility>

namespace Tavi::Recorder {

EventQueue::EventQueue(std::size_t capacity) : m_capacity(capacity) {}

bool EventQueue::Push(EventOrder& order) {
  {
    const std::lock_guard lock(m_mutex);
    // Those that a free manager is about to take do not wait.
    const auto free = static_cast<std::size_t>(std::count(m_running.begin(), m_running.end(), std::string()));
    if (m_closed || m_orders.size() >= m_capacity + free) return false;
    m_orders.push_back(std::move(order));
  }
  m_changed.notify_all();
  return true;
}

std::optional<EventOrder> EventQueue::Take(bool second) {
  std::unique_lock lock(m_mutex);
  // Once closed there is no use in sparing the second one.
  m_changed.wait(lock, [&] { return m_closed || (!m_orders.empty() && (!second || !m_running[0].empty())); });
  if (m_orders.empty()) return std::nullopt;
  EventOrder order = std::move(m_orders.front());
  m_orders.pop_front();
  m_running[second ? 1 : 0] = order.id;
  lock.unlock();
  m_changed.notify_all();
  return order;
}

void EventQueue::Finish(bool second) {
  {
    const std::lock_guard lock(m_mutex);
    m_running[second ? 1 : 0].clear();
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
  for (const auto& id : m_running) {
    if (!id.empty()) state.running.push_back(id);
  }
  return state;
}

}  // namespace Tavi::Recorder
