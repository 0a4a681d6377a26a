// The ring that every source keeps its recent history in.
#include "Kbase/Pipeline/IPipelineElement.h"

#include <algorithm>
#include <chrono>
#include <mutex>
#include <thread>

namespace Kbase::Pipeline {

namespace {

/// How often a taken lock is tried again before the thread sleeps.
constexpr int SpinLimit = 100;
constexpr std::chrono::microseconds LockSleep{50};

}  // namespace

/// One slot: the entry and a lock of one byte, which is held for one pointer copy only. A waiter that has spun in vain
/// sleeps, so that a real-time producer lets the reader run that lost the processor while it held the lock.
struct IPipelineElement::Slot {
  void lock() noexcept {
    for (int tries = 0; taken.test_and_set(std::memory_order_acquire); ++tries) {
      if (tries >= SpinLimit) std::this_thread::sleep_for(LockSleep);
    }
  }
  void unlock() noexcept { taken.clear(std::memory_order_release); }

  Entry entry;
  std::atomic_flag taken;
};

IPipelineElement::IPipelineElement(int ringSize)
    : m_size(static_cast<unsigned int>(std::max(ringSize, 1))), m_slots(m_size), m_current(m_size - 1) {}

IPipelineElement::~IPipelineElement() = default;

void IPipelineElement::AddNext(const Entry& entry) {
  const unsigned int current = m_current.load(std::memory_order_relaxed);
  const unsigned int pos = current + 1 < m_size ? current + 1 : 0;
  Slot& slot = m_slots[pos];
  Entry next = entry;
  {
    const std::lock_guard lock(slot);
    slot.entry.swap(next);
  }
  m_current.store(pos, std::memory_order_release);
  m_added.store(m_added.load(std::memory_order_relaxed) + 1, std::memory_order_release);
  m_newestId.store(entry ? entry->frameId : NoFrameId, std::memory_order_release);
  // `next`, which is now the old entry, is released here.
}

IPipelineElement::Entry IPipelineElement::GetElementAt(unsigned int index) const {
  Slot& slot = const_cast<Slot&>(m_slots[index < m_size ? index : index % m_size]);
  const std::lock_guard lock(slot);
  return slot.entry;
}

unsigned int IPipelineElement::GetRingPos() const {
  return m_current.load(std::memory_order_acquire);
}

IPipelineElement::Entry IPipelineElement::RetrieveCurrent() const {
  return GetElementAt(GetRingPos());
}

std::uint64_t IPipelineElement::GetCurrentFrameId() const {
  return m_newestId.load(std::memory_order_acquire);
}

bool IPipelineElement::IsDataAvailable() const {
  return m_added.load(std::memory_order_acquire) != 0;
}

unsigned int IPipelineElement::SeekRelative(int pos, int offset) const {
  const auto size = static_cast<std::int64_t>(m_size);
  const std::int64_t wrapped = (static_cast<std::int64_t>(pos) - offset) % size;
  return static_cast<unsigned int>(wrapped < 0 ? wrapped + size : wrapped);
}

bool IPipelineElement::IsKeyFrameAt(unsigned int pos) const {
  const Entry entry = GetElementAt(pos);
  return entry && entry->IsKeyFrame();
}

unsigned int IPipelineElement::SeekBackKeyframe(int count, int rate) const {
  const std::uint64_t added = m_added.load(std::memory_order_acquire);
  if (added == 0) return 0;
  // At least as new as what has been counted.
  const auto current = static_cast<int>(GetRingPos());
  // The oldest usable offset: what has been added, less the slot that the producer overwrites next.
  const std::uint64_t kept = added < m_size ? added : std::max(m_size - 1, 1U);
  const int oldest = static_cast<int>(kept) - 1;
  const int wanted = std::clamp(count, 0, oldest);
  if (rate <= 1) return SeekRelative(current, wanted);
  for (int offset = wanted; offset <= oldest; ++offset) {
    if (IsKeyFrameAt(SeekRelative(current, offset))) return SeekRelative(current, offset);
  }
  for (int offset = wanted - 1; offset >= 0; --offset) {
    if (IsKeyFrameAt(SeekRelative(current, offset))) return SeekRelative(current, offset);
  }
  return SeekRelative(current, wanted);
}

}  // namespace Kbase::Pipeline
