// What becomes of the files that an event's collectors have written.
#pragma once

#include "Tavi/EventCollect/CollectorSet.h"
#include "Tavi/PipelineCollect/PipelineCollectTypes.h"

namespace Tavi::Audio {
class AudioPipelineCollect;
}
namespace Tavi::Video {
class VideoPipelineCollect;
}

namespace Tavi::PipelineCollect {

/// Makes the products of one event out of collectors that have ended; one whose thread hangs in its disk is left out.
/// Borrows the collectors. Runs on the thread of whoever delivers the event.
class EventProducts {
 public:
  /// `keepStreams`: see PipelineCollectManagerConfig.
  explicit EventProducts(const CollectorMap& collectors, bool keepStreams = false)
      : m_collectors(collectors), m_keepStreams(keepStreams) {}

  /// Turns the cameras' streams into MP4 files, with the event's sound when there is any.
  void Mux() const;
  /// Each camera's sound is placed by the time stamps of the two streams' first entries: the streams start together
  /// only as far as key frames allow. Null for a collector that there is not.
  static void Mux(Video::VideoPipelineCollect* camera1, Video::VideoPipelineCollect* camera0,
                  const Audio::AudioPipelineCollect* audio, bool keepStreams = false);
  /// Lists the files of all collectors that have one, and what else they tell.
  void BuildOutput(PipelineCollectOutput& output) const;

 private:
  const CollectorMap& m_collectors;
  const bool m_keepStreams;
};

}  // namespace Tavi::PipelineCollect
