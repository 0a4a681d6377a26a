// Material to record: H.264 access units and MP3 frames.
#include "Support/VideoEncode.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/opt.h>
}

#include <cmath>
#include <cstdio>
#include <numbers>
#include <stdexcept>

namespace Tavi::Testing {
namespace {

/// One encoder; every packet it gives goes to a list.
class Encoder {
 public:
  explicit Encoder(const char* name) : m_codec(avcodec_find_encoder_by_name(name)) {
    if (m_codec == nullptr) throw std::runtime_error(std::string("libavcodec has no ") + name);
    context = avcodec_alloc_context3(m_codec);
  }
  ~Encoder() {
    av_packet_free(&m_packet);
    av_frame_free(&frame);
    avcodec_free_context(&context);
  }
  Encoder(const Encoder&) = delete;
  Encoder& operator=(const Encoder&) = delete;

  void Open() {
    if (avcodec_open2(context, m_codec, nullptr) < 0) throw std::runtime_error("the encoder does not open");
    frame->format = context->codec_type == AVMEDIA_TYPE_VIDEO ? static_cast<int>(context->pix_fmt)
                                                              : static_cast<int>(context->sample_fmt);
  }
  void Encode(const AVFrame* input) {
    avcodec_send_frame(context, input);
    while (avcodec_receive_packet(context, m_packet) == 0) {
      packets.emplace_back(m_packet->data, m_packet->data + m_packet->size);
      av_packet_unref(m_packet);
    }
  }

  AVCodecContext* context = nullptr;
  AVFrame* frame = av_frame_alloc();
  std::vector<AccessUnitBytes> packets;

 private:
  const AVCodec* m_codec;
  AVPacket* m_packet = av_packet_alloc();
};

/// A gradient that moves and some noise, so that every frame has bits to spend.
void Paint(AVFrame& frame, int number) {
  std::uint32_t noise = static_cast<std::uint32_t>(number) * 2654435761U + 1U;
  for (int y = 0; y < frame.height; ++y) {
    for (int x = 0; x < frame.width; ++x) {
      noise = noise * 1664525U + 1013904223U;
      frame.data[0][y * frame.linesize[0] + x] =
          static_cast<std::uint8_t>(16 + (x + y + number * 3) % 100 + static_cast<int>(noise >> 28U));
    }
  }
  for (int y = 0; y < frame.height / 2; ++y) {
    for (int x = 0; x < frame.width / 2; ++x) {
      frame.data[1][y * frame.linesize[1] + x] = static_cast<std::uint8_t>(128 + number % 16);
      frame.data[2][y * frame.linesize[2] + x] = 120;
    }
  }
}

}  // namespace

std::vector<AccessUnitBytes> EncodeH264(int width, int height, int fps, int gop, int frames,
                                        const std::string& options) {
  Encoder encoder("libx264");
  encoder.context->width = width;
  encoder.context->height = height;
  encoder.context->pix_fmt = AV_PIX_FMT_YUV420P;
  encoder.context->time_base = {1, fps};
  encoder.context->gop_size = gop;
  encoder.context->max_b_frames = 0;
  encoder.context->thread_count = 1;
  const std::string all = "repeat-headers=1:scenecut=0:bframes=0" + (options.empty() ? "" : ":" + options);
  av_opt_set(encoder.context->priv_data, "preset", "ultrafast", 0);
  av_opt_set(encoder.context->priv_data, "tune", "zerolatency", 0);
  av_opt_set(encoder.context->priv_data, "x264-params", all.c_str(), 0);
  encoder.Open();
  encoder.frame->width = width;
  encoder.frame->height = height;
  av_frame_get_buffer(encoder.frame, 0);
  for (int i = 0; i < frames; ++i) {
    av_frame_make_writable(encoder.frame);
    Paint(*encoder.frame, i);
    encoder.frame->pts = i;
    encoder.Encode(encoder.frame);
  }
  encoder.Encode(nullptr);
  return encoder.packets;
}

std::vector<std::uint8_t> EncodeMp3(double seconds) {
  constexpr int SampleRate = 44100;
  Encoder encoder("libmp3lame");
  encoder.context->sample_rate = SampleRate;
  encoder.context->sample_fmt = AV_SAMPLE_FMT_S16P;
  encoder.context->bit_rate = 64000;
  av_channel_layout_default(&encoder.context->ch_layout, 1);
  encoder.Open();
  encoder.frame->nb_samples = encoder.context->frame_size;
  av_channel_layout_copy(&encoder.frame->ch_layout, &encoder.context->ch_layout);
  av_frame_get_buffer(encoder.frame, 0);
  const auto total = static_cast<std::int64_t>(seconds * SampleRate);
  for (std::int64_t at = 0; at < total; at += encoder.frame->nb_samples) {
    av_frame_make_writable(encoder.frame);
    auto* samples = reinterpret_cast<std::int16_t*>(encoder.frame->data[0]);
    for (int i = 0; i < encoder.frame->nb_samples; ++i) {
      const double t = static_cast<double>(at + i) / SampleRate;
      samples[i] = static_cast<std::int16_t>(8000 * std::sin(2 * std::numbers::pi * 440 * t));
    }
    encoder.frame->pts = at;
    encoder.Encode(encoder.frame);
  }
  encoder.Encode(nullptr);
  return Join(encoder.packets);
}

std::vector<std::uint8_t> Join(const std::vector<AccessUnitBytes>& units) {
  std::vector<std::uint8_t> all;
  for (const auto& unit : units) all.insert(all.end(), unit.begin(), unit.end());
  return all;
}

void WriteBytes(const std::string& path, const std::vector<std::uint8_t>& bytes) {
  if (FILE* file = std::fopen(path.c_str(), "wb")) {
    if (!bytes.empty()) std::fwrite(bytes.data(), 1, bytes.size(), file);
    std::fclose(file);
  }
}

}  // namespace Tavi::Testing
