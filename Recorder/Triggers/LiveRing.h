// Follows one source as it delivers, over stops and starts of the acquisition.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "Kbase/Pipeline/IPipelineElement.h"
#include "Tavi/PipelineCollect/RingReader.h"

namespace Tavi::Recorder::Triggers {

/// Begins with the newest entry of a ring that is not new to the acquisition, with the first of one that is empty.
/// Keeps no ring alive. Thread-bound.
class LiveRing {
 public:
  using Ring = std::shared_ptr<Kbase::Pipeline::IPipelineElement>;
  using Entry = Kbase::Pipeline::IPipelineElement::Entry;

  /// Takes what `ring` (null without an acquisition) has delivered since the last call. False when that does not follow
  /// on what was taken before: the ring is another one, or has run a whole lap.
  bool Follow(const Ring& ring);
  /// What was taken, entry by entry; null at its end.
  [[nodiscard]] Entry Next() { return m_reader ? m_reader->Next() : nullptr; }

 private:
  std::weak_ptr<Kbase::Pipeline::IPipelineElement> m_ring;
  std::optional<PipelineCollect::RingReader> m_reader;
  std::uint64_t m_lost = 0;
};

}  // namespace Tavi::Recorder::Triggers
