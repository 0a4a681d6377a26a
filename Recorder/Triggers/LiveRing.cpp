// Follows one source as it delivers, over stops and starts of the acquisition.
#include "Recorder/Triggers/LiveRing.h"

namespace Tavi::Recorder::Triggers {

bool LiveRing::Follow(const Ring& ring) {
  if (!ring) return true;
  const bool isOther = m_ring.owner_before(ring) || ring.owner_before(m_ring);
  if (isOther) {
    m_ring = ring;
    m_lost = 0;
    m_reader.emplace(ring->IsDataAvailable() ? ring->GetRingPos() : 0U);
  }
  m_reader->Follow(*ring, ring->GetCurrentFrameId());
  const bool hasLost = m_reader->GetLost() != m_lost;
  m_lost = m_reader->GetLost();
  return !isOther && !hasLost;
}

}  // namespace Tavi::Recorder::Triggers
