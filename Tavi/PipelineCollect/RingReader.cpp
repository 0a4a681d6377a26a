// Follows one ring from the start of an event's window.
#include "Tavi/PipelineCollect/RingReader.h"

#include <utility>

namespace Tavi::PipelineCollect {

using Kbase::Pipeline::IPipelineElement;

RingReader::RingReader(const RingStart& start)
    : m_nextPos(start.pos),
      m_nextId(start.id.value_or(0)),
      m_following(start.id.has_value()),
      m_needsKeyFrame(start.atKeyFrame) {}

void RingReader::Restart(const RingStart& start) {
  RingReader fresh(start);
  fresh.m_entries.swap(m_entries);
  fresh.m_lost = m_lost;
  *this = std::move(fresh);
}

void RingReader::Follow(const IPipelineElement& ring, std::uint64_t newestId) {
  while (!m_following || m_nextId <= newestId) {
    Entry entry = ring.GetElementAt(m_nextPos);
    if (!entry) return;
    if (m_following && entry->frameId != m_nextId) {
      if (!SkipLost(ring, newestId)) return;
      continue;
    }
    m_following = true;
    m_nextId = entry->frameId + 1;
    m_nextPos = (m_nextPos + 1) % ring.GetRingSize();
    m_needsKeyFrame = m_needsKeyFrame && !entry->IsKeyFrame();
    if (!m_needsKeyFrame) m_entries.push_back({std::move(entry), std::exchange(m_lostSince, 0)});
  }
}

bool RingReader::SkipLost(const IPipelineElement& ring, std::uint64_t newestId) {
  // The oldest entry that the producer will not overwrite at once.
  const std::uint64_t size = ring.GetRingSize();
  const std::uint64_t oldestId = newestId + 2 > size ? newestId + 2 - size : 0;
  for (std::uint64_t id = oldestId > m_nextId ? oldestId : m_nextId + 1; id <= newestId; ++id) {
    const auto pos = static_cast<unsigned int>((m_nextPos + (id - m_nextId)) % size);
    const Entry entry = ring.GetElementAt(pos);
    if (!entry || entry->frameId != id || !entry->IsKeyFrame()) continue;
    m_lostSince += id - m_nextId;
    m_nextId = id;
    m_nextPos = pos;
    return true;
  }
  return false;
}

RingReader::Entry RingReader::Next() {
  if (m_entries.empty()) return nullptr;
  Entry entry = std::move(m_entries.front().entry);
  m_lost += m_entries.front().lostBefore;
  m_entries.pop_front();
  return entry;
}

}  // namespace Tavi::PipelineCollect
