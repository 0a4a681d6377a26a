// A place in one ring, for a reader that may be slower than the source.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <utility>

#include "Kbase/Pipeline/IPipelineElement.h"

namespace Tavi::Recorder::Live {

/// Holds no entry and keeps no ring alive: who stands still costs nothing but its place. It begins with the newest
/// entry that a decoder can begin with. When its place is overwritten, or further behind the newest entry than the
/// patience is, it goes to the newest such entry that it has not had yet. Thread-bound.
class RingCursor {
 public:
  using Ring = std::shared_ptr<Kbase::Pipeline::IPipelineElement>;
  using Entry = Kbase::Pipeline::IPipelineElement::Entry;

  explicit RingCursor(std::chrono::milliseconds patience) : m_patience(patience) {}

  /// The entry at its place; null when `ring` (null without an acquisition) has not delivered it yet.
  [[nodiscard]] Entry Peek(const Ring& ring);
  /// Passes over what Peek gave last.
  void Advance();
  /// What Peek gave last does not follow on what was passed over before: entries were left out, or the ring is another.
  [[nodiscard]] bool IsAfterGap() const { return m_isAfterGap; }
  /// What is passed over next does not follow on what was before: that could not be used.
  void NoteGap() { m_isAfterGap = true; }
  /// Entries that were left out since the last call.
  std::uint64_t TakeDropped() { return std::exchange(m_dropped, 0U); }

 private:
  using Element = Kbase::Pipeline::IPipelineElement;

  [[nodiscard]] static Entry Get(const Element& ring, std::uint64_t id);
  [[nodiscard]] static std::uint64_t FindNewestKeyFrame(const Element& ring, std::uint64_t newestId);
  void Begin(const Ring& ring);
  [[nodiscard]] bool IsLate(const Element& ring, const Entry& entry) const;
  void Skip(const Element& ring, std::uint64_t newestId, bool isGone);

  const std::chrono::milliseconds m_patience;
  std::weak_ptr<Element> m_ring;
  std::uint64_t m_nextId = 0;
  bool m_hasBegun = false;
  bool m_needsKeyFrame = true;
  bool m_isAfterGap = false;
  std::uint64_t m_dropped = 0;
};

}  // namespace Tavi::Recorder::Live
