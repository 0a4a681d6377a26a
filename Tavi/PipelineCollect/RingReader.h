// Follows one ring from the start of an event's window.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>

#include "Kbase/Pipeline/IPipelineElement.h"

namespace Tavi::PipelineCollect {

/// Where a window begins in a ring.
struct RingStart {
  unsigned int pos = 0;
  /// Frame id of the entry at `pos`, which may be yet to come. Without it the start is whatever lies there when it is
  /// first looked at; with it a start that was overwritten meanwhile is known to be lost.
  std::optional<std::uint64_t> id;
  /// Entries before the first key frame are passed over.
  bool atKeyFrame = false;
};

/// Hands out a ring's entries in order from a start position on.
///
/// Follow takes references to all entries that are there, so that a writer that falls behind (a slow disk) does not
/// lose them to the producer, and still has them when the ring itself is taken away. They cost no memory while they are
/// in the ring too. Thread-bound.
class RingReader {
 public:
  using Entry = Kbase::Pipeline::IPipelineElement::Entry;
  struct Held {
    Entry entry;
    /// Entries before it that were overwritten in the ring.
    std::uint64_t lostBefore = 0;
  };

  explicit RingReader(const RingStart& start);
  explicit RingReader(unsigned int startPos) : RingReader(RingStart{startPos, {}, false}) {}

  /// Takes the entries up to the one with `newestId`. Entries that the producer has overwritten in the meantime are
  /// skipped up to the next key frame, and counted.
  void Follow(const Kbase::Pipeline::IPipelineElement& ring, std::uint64_t newestId);
  /// Goes on elsewhere, in a ring that took the place of the one before; what is held stays.
  void Restart(const RingStart& start);
  /// The next entry; null when the ring has not delivered it yet.
  Entry Next();
  /// Entries that could not be read in time, among those that were handed out.
  [[nodiscard]] std::uint64_t GetLost() const { return m_lost; }
  /// What Next has not handed out yet.
  [[nodiscard]] const std::deque<Held>& GetHeld() const { return m_entries; }

 private:
  bool SkipLost(const Kbase::Pipeline::IPipelineElement& ring, std::uint64_t newestId);

  unsigned int m_nextPos;
  std::uint64_t m_nextId = 0;
  bool m_following = false;
  bool m_needsKeyFrame = false;
  std::uint64_t m_lost = 0;
  /// Not said of an entry yet.
  std::uint64_t m_lostSince = 0;
  std::deque<Held> m_entries;
};

}  // namespace Tavi::PipelineCollect
