// Follows one ring from the start of an event's window.
#pragma once

#include <cstdint>
#include <deque>

#include "Kbase/Pipeline/IPipelineElement.h"

namespace Tavi::PipelineCollect {

/// Hands out a ring's entries in order from a start position on.
///
/// Follow takes references to all entries that are there, so that a writer that falls behind (a slow disk) does not
/// lose them to the producer, and still has them when the ring itself is taken away. They cost no memory while they are
/// in the ring too. Thread-bound.
class RingReader {
 public:
  using Entry = Kbase::Pipeline::IPipelineElement::Entry;

  explicit RingReader(unsigned int startPos) : m_nextPos(startPos) {}

  /// Takes the entries up to the one with `newestId`. Entries that the producer has overwritten in the meantime are
  /// skipped up to the next key frame, and counted.
  void Follow(const Kbase::Pipeline::IPipelineElement& ring, std::uint64_t newestId);
  /// The next entry; null when the ring has not delivered it yet.
  Entry Next();
  /// Entries that could not be read in time.
  [[nodiscard]] std::uint64_t GetLost() const { return m_lost; }

 private:
  bool SkipLost(const Kbase::Pipeline::IPipelineElement& ring, std::uint64_t newestId);

  unsigned int m_nextPos;
  std::uint64_t m_nextId = 0;
  bool m_following = false;
  std::uint64_t m_lost = 0;
  std::deque<Entry> m_entries;
};

}  // namespace Tavi::PipelineCollect
