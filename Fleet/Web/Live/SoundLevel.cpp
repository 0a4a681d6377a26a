// How loud the sound is.
#include "Fleet/Web/Live/SoundLevel.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <algorithm>
#include <cmath>

namespace Tavi::Web {
namespace {

constexpr int LevelsPerSecond = 10;
/// A decoder that begins within a stream complains of its first frame.
constexpr int SilentLogOffset = 100;

double ToDbfs(double amplitude) {
  constexpr double DecibelsPerDecade = 20.0;
  return amplitude > 0.0 ? std::max(DecibelsPerDecade * std::log10(amplitude), SoundLevel::SilenceDbfs)
                         : SoundLevel::SilenceDbfs;
}

}  // namespace

SoundLevel::~SoundLevel() {
  Free();
}

void SoundLevel::Free() {
  avcodec_free_context(&m_decoder);
  av_packet_free(&m_packet);
  av_frame_free(&m_frame);
}

void SoundLevel::Begin(int sampleRate) {
  Free();
  m_sampleRate = sampleRate;
  m_samples = m_values = 0;
  m_squares = m_peak = 0.0;
  // The decoder that gives planes of floats.
  const AVCodec* codec = avcodec_find_decoder_by_name("mp3float");
  if (codec == nullptr) return;
  m_decoder = avcodec_alloc_context3(codec);
  m_packet = av_packet_alloc();
  m_frame = av_frame_alloc();
  if (m_decoder != nullptr) m_decoder->log_level_offset = SilentLogOffset;
  if (m_packet == nullptr || m_frame == nullptr || avcodec_open2(m_decoder, codec, nullptr) < 0) Free();
}

std::optional<SoundLevel::Level> SoundLevel::Take(std::span<const std::uint8_t> frame) {
  if (m_decoder == nullptr) return std::nullopt;
  // Without a buffer of its own the decoder copies what it is given, with the padding that it needs.
  m_packet->data = const_cast<std::uint8_t*>(frame.data());
  m_packet->size = static_cast<int>(frame.size());
  if (avcodec_send_packet(m_decoder, m_packet) < 0) return std::nullopt;
  while (avcodec_receive_frame(m_decoder, m_frame) >= 0) Measure(*m_frame);
  if (m_samples * LevelsPerSecond < m_sampleRate || m_values == 0) return std::nullopt;
  const Level level{ToDbfs(m_peak), ToDbfs(std::sqrt(m_squares / m_values))};
  m_samples = m_values = 0;
  m_squares = m_peak = 0.0;
  return level;
}

void SoundLevel::Measure(const AVFrame& frame) {
  if (frame.format != AV_SAMPLE_FMT_FLTP) return;
  for (int channel = 0; channel < frame.ch_layout.nb_channels; ++channel) {
    const auto* values = reinterpret_cast<const float*>(frame.extended_data[channel]);
    for (int i = 0; i < frame.nb_samples; ++i) {
      const double value = std::abs(static_cast<double>(values[i]));
      m_squares += value * value;
      m_peak = std::max(m_peak, value);
    }
    m_values += frame.nb_samples;
  }
  m_samples += frame.nb_samples;
}

}  // namespace Tavi::Web
