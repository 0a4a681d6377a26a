// Decodes the sound of a produced file as a player would.
#include "Support/SoundDecode.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <cmath>

namespace Tavi::Testing {

DecodedSound DecodeSound(const std::string& path) {
  DecodedSound sound;
  AVFormatContext* format = nullptr;
  if (avformat_open_input(&format, path.c_str(), nullptr, nullptr) < 0) return sound;
  avformat_find_stream_info(format, nullptr);
  const AVCodec* codec = nullptr;
  const int index = av_find_best_stream(format, AVMEDIA_TYPE_AUDIO, -1, -1, &codec, 0);
  AVCodecContext* decoder = avcodec_alloc_context3(codec);
  AVPacket* packet = av_packet_alloc();
  AVFrame* frame = av_frame_alloc();
  if (index >= 0) {
    const AVStream& stream = *format->streams[index];
    avcodec_parameters_to_context(decoder, stream.codecpar);
    decoder->request_sample_fmt = AV_SAMPLE_FMT_FLTP;
    avcodec_open2(decoder, codec, nullptr);
    for (bool more = true; more; av_packet_unref(packet)) {
      more = av_read_frame(format, packet) == 0;
      if (more && packet->stream_index != index) continue;
      int state = avcodec_send_packet(decoder, more ? packet : nullptr);
      while (state >= 0 && (state = avcodec_receive_frame(decoder, frame)) >= 0) {
        if (sound.samples.empty()) sound.startSeconds = static_cast<double>(frame->pts) * av_q2d(stream.time_base);
        const auto* data = reinterpret_cast<const float*>(frame->data[0]);
        sound.samples.insert(sound.samples.end(), data, data + frame->nb_samples);
      }
      if (state != AVERROR(EAGAIN) && state != AVERROR_EOF) ++sound.decodeErrors;
    }
    sound.sampleRate = decoder->sample_rate;
  }
  av_frame_free(&frame);
  av_packet_free(&packet);
  avcodec_free_context(&decoder);
  avformat_close_input(&format);
  return sound;
}

std::vector<double> FindTicks(const DecodedSound& sound) {
  constexpr float Loud = 0.15F;
  const auto quiet = static_cast<std::size_t>(sound.sampleRate / 5);
  std::vector<double> times;
  std::size_t lastLoud = 0;
  for (std::size_t i = 0; i < sound.samples.size(); ++i) {
    if (std::fabs(sound.samples[i]) < Loud) continue;
    if (i - lastLoud > quiet) times.push_back(sound.startSeconds + static_cast<double>(i) / sound.sampleRate);
    lastLoud = i;
  }
  return times;
}

}  // namespace Tavi::Testing
