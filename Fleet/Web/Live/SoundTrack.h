// The sound's MP3 frames for browsers.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "Fleet/Web/Live/RecordSink.h"
#include "Fleet/Web/Live/SoundLevel.h"

namespace Tavi::Web {

class Fanout;

/// Publishes the sound as it is, a tenth of a second at a time, and its level. Not in MP4: Chromium's Media Source
/// Extensions take MP3 as "audio/mpeg" only, which has no times of its own. So each part begins with its time, in
/// seconds as eight bytes of a floating-point number (IEEE 754 binary64, highest byte first). Thread-bound.
class SoundTrack {
 public:
  /// Borrows `fanout`.
  explicit SoundTrack(Fanout& fanout) : m_fanout(fanout) {}

  /// `withLevel`: decode it, too.
  void Take(const LiveUnit& unit, bool withLevel);

 private:
  void Begin(int sampleRate);
  void Add(std::span<const std::uint8_t> frame, int samples);
  void Measure(std::span<const std::uint8_t> frame);
  void Publish();
  /// Of m_sample, in seconds.
  [[nodiscard]] double GetSeconds(std::int64_t sample) const;

  Fanout& m_fanout;
  int m_sampleRate = 0;
  SoundLevel m_level;
  /// When the next frame begins, in samples.
  std::int64_t m_sample = 0;
  /// The part that is being made: its time and frames, empty before the first; its length.
  std::vector<std::uint8_t> m_part;
  int m_samples = 0;
};

}  // namespace Tavi::Web
