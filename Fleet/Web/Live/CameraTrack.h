// One camera's access units as fragments for browsers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "Fleet/Web/Live/FragmentMuxer.h"
#include "Fleet/Web/Live/RecordSink.h"

namespace Tavi::Web {

class Fanout;

/// Publishes an init segment for each new set of parameter sets and a fragment for each picture: when the next one has
/// come, because a player that is told a wrong length takes what follows for a break and waits for a key frame.
/// Thread-bound.
class CameraTrack {
 public:
  /// `index`: of MediaStreams. Borrows `fanout`.
  CameraTrack(std::size_t index, Fanout& fanout) : m_index(index), m_fanout(fanout) {}

  void Take(const LiveUnit& unit);

 private:
  bool Begin(const LiveUnit& unit);
  void Publish(std::int64_t duration);

  const std::size_t m_index;
  Fanout& m_fanout;
  std::unique_ptr<FragmentMuxer> m_muxer;
  std::vector<std::uint8_t> m_parameterSets;
  /// The picture that waits for the next one; empty for none. Its time in ticks.
  std::vector<std::uint8_t> m_picture;
  std::int64_t m_time = 0;
  bool m_isKeyFrame = false;
  /// Of the last picture but this, in ticks.
  std::int64_t m_duration = 0;
  /// That parameter sets cannot be used has been said.
  bool m_isRefused = false;
};

}  // namespace Tavi::Web
