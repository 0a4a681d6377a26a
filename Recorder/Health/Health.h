// The health of all sources.
#pragma once

#include <array>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "Kbase/Pipeline/IPipelineElement.h"
#include "Kbase/Util/Clock.h"
#include "Recorder/Health/SourceWatch.h"
#include "Tavi/Pipeline/PipelineType.h"

namespace Tavi::Recorder {

/// Samples every ring once a second, keeps what can be known from that, and logs when a source falls silent and when it
/// is back.
///
/// Thread-safe; Sample is called by one thread at a time. No ring outlives a sample here.
class Health {
 public:
  using Ring = std::shared_ptr<Kbase::Pipeline::IPipelineElement>;
  /// The present ring of a source, null when there is none. Called by Sample, without a lock held.
  using GetRing = std::function<Ring(Pipeline::PipelineType)>;

  /// `clock` is borrowed.
  explicit Health(GetRing getRing, Kbase::Util::IClock& clock = Kbase::Util::IClock::Steady());

  /// To be called once a second. One look at each ring's newest entry: a producer never waits for it.
  void Sample();
  /// The sources that any acquisition has had, as of the last sample; in the order of their keys.
  [[nodiscard]] std::vector<SourceHealth> Read() const;

  Health(const Health&) = delete;
  Health& operator=(const Health&) = delete;

 private:
  void SampleSource(SourceWatch& source);

  const GetRing m_getRing;
  Kbase::Util::IClock& m_clock;
  /// Guards m_sources; never held while a ring is read or dropped, or a line logged.
  mutable std::mutex m_mutex;
  std::vector<SourceWatch> m_sources;
};

}  // namespace Tavi::Recorder
