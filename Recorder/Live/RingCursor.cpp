// A place in one ring, for a reader that may be slower than the source.
#include "Recorder/Live/RingCursor.h"

#include "Tavi/PipelineCollect/RingTime.h"

namespace Tavi::Recorder::Live {
namespace {

constexpr std::uint64_t None = Kbase::Pipeline::IPipelineElement::NoFrameId;

}  // namespace

RingCursor::Entry RingCursor::Peek(const Ring& ring) {
  if (!ring) return nullptr;
  if (m_ring.owner_before(ring) || ring.owner_before(m_ring)) Begin(ring);
  const std::uint64_t newestId = ring->GetCurrentFrameId();
  if (newestId == None) return nullptr;
  Entry entry = m_nextId <= newestId ? Get(*ring, m_nextId) : nullptr;
  const bool isGone = m_nextId <= newestId && !entry;
  if (isGone || (entry && IsLate(*ring, entry))) {
    Skip(*ring, newestId, isGone);
    entry = Get(*ring, m_nextId);
  }
  // Only where the ring's first entries are none to begin with.
  while (entry && m_needsKeyFrame && !entry->IsKeyFrame()) entry = Get(*ring, ++m_nextId);
  m_needsKeyFrame = m_needsKeyFrame && !entry;
  return entry;
}

void RingCursor::Advance() {
  ++m_nextId;
  m_hasBegun = true;
  m_isAfterGap = false;
}

/// Null when it is not there yet, or no more. Ids count a ring's entries, so they tell the slot.
RingCursor::Entry RingCursor::Get(const Element& ring, std::uint64_t id) {
  Entry entry = ring.GetElementAt(static_cast<unsigned int>(id % ring.GetRingSize()));
  return entry && entry->frameId == id ? entry : nullptr;
}

/// None without one.
std::uint64_t RingCursor::FindNewestKeyFrame(const Element& ring, std::uint64_t newestId) {
  for (std::uint64_t id = newestId; newestId - id + 1 < ring.GetRingSize(); --id) {
    const Entry entry = Get(ring, id);
    if (entry && entry->IsKeyFrame()) return id;
    if (id == 0) break;
  }
  return None;
}

void RingCursor::Begin(const Ring& ring) {
  m_ring = ring;
  const std::uint64_t newestId = ring->GetCurrentFrameId();
  const std::uint64_t key = newestId == None ? None : FindNewestKeyFrame(*ring, newestId);
  m_nextId = key == None ? newestId + 1 : key;
  m_needsKeyFrame = true;
  m_isAfterGap = m_hasBegun;
}

bool RingCursor::IsLate(const Element& ring, const Entry& entry) const {
  const Entry newest = ring.RetrieveCurrent();
  return newest && PipelineCollect::GetMadeAt(newest.get()) - PipelineCollect::GetMadeAt(entry.get()) > m_patience;
}

/// One that is late but still there goes on when there is nothing newer to begin with.
void RingCursor::Skip(const Element& ring, std::uint64_t newestId, bool isGone) {
  const std::uint64_t key = FindNewestKeyFrame(ring, newestId);
  const bool isNewer = key != None && key > m_nextId;
  if (!isNewer && !isGone) return;
  const std::uint64_t next = isNewer ? key : newestId + 1;
  m_needsKeyFrame = true;
  m_dropped += next - m_nextId;
  m_isAfterGap = m_hasBegun;
  m_nextId = next;
}

}  // namespace Tavi::Recorder::Live
