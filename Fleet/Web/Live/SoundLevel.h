// How loud the sound is.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

struct AVCodecContext;
struct AVFrame;
struct AVPacket;

namespace Tavi::Web {

/// Decodes MP3 frames and tells their level ten times a second of sound. Thread-bound.
class SoundLevel {
 public:
  /// Below full scale, in decibels, over all channels; SilenceDbfs at least.
  struct Level {
    double peakDbfs = 0.0;
    double rmsDbfs = 0.0;
  };
  /// The smallest step of 16 bits is at -90.
  static constexpr double SilenceDbfs = -96.0;

  SoundLevel() = default;
  ~SoundLevel();
  SoundLevel(const SoundLevel&) = delete;
  SoundLevel& operator=(const SoundLevel&) = delete;

  void Begin(int sampleRate);
  /// The level of a tenth of a second, when `frame` has completed it.
  std::optional<Level> Take(std::span<const std::uint8_t> frame);

 private:
  void Free();
  void Measure(const AVFrame& frame);

  AVCodecContext* m_decoder = nullptr;
  AVPacket* m_packet = nullptr;
  AVFrame* m_frame = nullptr;
  int m_sampleRate = 0;
  double m_squares = 0.0;
  double m_peak = 0.0;
  /// Of one channel, and of all.
  int m_samples = 0;
  int m_values = 0;
};

}  // namespace Tavi::Web
