// Where the window of each stream begins in its ring.
#pragma once

#include <map>
#include <memory>

#include "Kbase/Pipeline/IPipelineElement.h"
#include "Tavi/PipelineCollect/EntryClock.h"
#include "Tavi/PipelineCollect/PipelineCollectTypes.h"
#include "Tavi/PipelineCollect/RingReader.h"

namespace Tavi::PipelineCollect {

/// The streams' rings; one that is missing, or null, takes no part.
using Rings = std::map<PipelineCollectType, std::shared_ptr<Kbase::Pipeline::IPipelineElement>>;
/// A stream without a start begins at 0.
using Starts = std::map<PipelineCollectType, RingStart>;

/// Finds the common start of one event: each camera at a key frame, camera 0 and the sound aligned to camera 1 by time
/// stamp, the sensors by count. A camera that stands still is no reference: the other one is, and without any the sound
/// starts by count. Works on rings alone, which may be appended to meanwhile. Thread-bound.
///
/// Where the window is to be covered (WindowCare) each start is then moved back to a key frame that is no later than
/// the window's start in time, and the sound's to where the first camera begins. A source that has stood still since
/// before the window begins with what it delivers next.
class StartSync {
 public:
  using Ring = Kbase::Pipeline::IPipelineElement;
  using TimePoint = EntryClock::TimePoint;

  /// `seconds` is how far before the present, or `care.moment`, the window begins.
  StartSync(const Rings& rings, int seconds, const WindowCare& care = {})
      : m_rings(rings), m_seconds(seconds), m_care(care) {}

  Starts Find();

 private:
  [[nodiscard]] Ring* Get(PipelineCollectType type) const;
  [[nodiscard]] Ring* FindReference(PipelineCollectType& type) const;
  void SeekCamera(PipelineCollectType type, const char* name);
  void AlignCamera0ToCamera1();
  void SeekSensor(PipelineCollectType type);
  void AlignAudio();
  void SetStart(PipelineCollectType type, const Ring& ring, unsigned int pos);
  void CoverAll();
  TimePoint Cover(PipelineCollectType type, const Ring& ring, TimePoint from);

  const Rings& m_rings;
  const int m_seconds;
  const WindowCare m_care;
  Starts m_starts;
};

}  // namespace Tavi::PipelineCollect
