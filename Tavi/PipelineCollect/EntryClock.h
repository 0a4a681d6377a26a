// When the entries of a ring were made, by the steady clock.
#pragma once

#include <chrono>
#include <optional>

#include "Kbase/Pipeline/IPipelineElement.h"
#include "Tavi/PipelineCollect/PipelineCollectTypes.h"

namespace Tavi::PipelineCollect {

/// True for the streams whose time stamps tell when an entry was captured, by the one clock of the media pipeline. The
/// others' time stamps only count entries.
[[nodiscard]] bool HasCaptureTimes(PipelineCollectType type);

/// Puts one ring's entries on the steady clock.
///
/// A camera's frame arrives in the ring when it is encoded, some milliseconds to hundreds of them after its capture.
/// Its time stamp is exact but counts from the pipeline's start; the shortest way of any entry from there to the ring
/// is taken for the distance of the two clocks. Entries without capture times were made when they arrived.
/// Thread-bound.
class EntryClock {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  explicit EntryClock(PipelineCollectType type) : m_stamped(HasCaptureTimes(type)) {}

  /// Learns from the ring's newest entries; to be called before anything is asked.
  void Learn(const Kbase::Pipeline::IPipelineElement& ring);
  void Learn(const Kbase::Pipeline::IPipelineCbElement* entry);
  /// Entries that tell nothing are of now.
  [[nodiscard]] TimePoint TimeOf(const Kbase::Pipeline::IPipelineCbElement* entry) const;

 private:
  const bool m_stamped;
  /// Steady time less time stamp, the least that was seen.
  std::optional<std::chrono::nanoseconds> m_distance;
};

}  // namespace Tavi::PipelineCollect
