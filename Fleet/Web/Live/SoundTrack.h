// The sound's MP3 frames as fragments for browsers.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "Fleet/Web/Live/FragmentMuxer.h"
#include "Fleet/Web/Live/RecordSink.h"
#include "Fleet/Web/Live/SoundLevel.h"

namespace Tavi::Web {

class Fanout;

/// Publishes an init segment, and a fragment and the level for each tenth of a second. Thread-bound.
class SoundTrack {
 public:
  /// Borrows `fanout`.
  explicit SoundTrack(Fanout& fanout) : m_fanout(fanout) {}

  /// `withLevel`: decode it, too.
  void Take(const LiveUnit& unit, bool withLevel);

 private:
  bool Begin(const FragmentMuxer::Sound& sound);
  void Add(std::span<const std::uint8_t> frame);
  void Measure(std::span<const std::uint8_t> frame);
  void Publish();

  Fanout& m_fanout;
  std::unique_ptr<FragmentMuxer> m_muxer;
  FragmentMuxer::Sound m_sound;
  SoundLevel m_level;
  /// When the next frame begins, in samples.
  std::int64_t m_sample = 0;
  /// Of the fragment that is being made.
  int m_samples = 0;
};

}  // namespace Tavi::Web
