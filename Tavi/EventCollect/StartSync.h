// Where the window of each stream begins in its ring.
#pragma once

#include <map>
#include <memory>

#include "Kbase/Pipeline/IPipelineElement.h"
#include "Tavi/PipelineCollect/PipelineCollectTypes.h"

namespace Tavi::PipelineCollect {

/// The streams' rings; one that is missing, or null, takes no part.
using Rings = std::map<PipelineCollectType, std::shared_ptr<Kbase::Pipeline::IPipelineElement>>;
/// Ring positions; a stream without one begins at 0.
using StartPositions = std::map<PipelineCollectType, unsigned int>;

/// Finds the common start of one event: each camera at a key frame, camera 0 and the sound aligned to camera 1 by time
/// stamp, the sensors by count. Works on rings alone, which may be appended to meanwhile. Thread-bound.
class StartSync {
 public:
  /// `seconds` is how far before the present the window begins.
  StartSync(const Rings& rings, int seconds) : m_rings(rings), m_seconds(seconds) {}

  StartPositions Find();

 private:
  using Ring = Kbase::Pipeline::IPipelineElement;

  [[nodiscard]] Ring* Get(PipelineCollectType type) const;
  void SeekCamera(PipelineCollectType type, const char* name);
  void AlignCamera0ToCamera1();
  void SeekSensor(PipelineCollectType type);
  void AlignAudio();

  const Rings& m_rings;
  const int m_seconds;
  StartPositions m_starts;
};

}  // namespace Tavi::PipelineCollect
