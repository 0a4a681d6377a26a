// Opens a produced file as a player would and decodes every frame of it.
#include "Support/VideoDecode.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <array>
#include <fstream>
#include <iterator>
#include <numeric>
#include <span>

namespace Tavi::Testing {
namespace {

/// Mean luma above which a frame is a flash; scenes stay well below.
constexpr double FlashLuma = 200.0;

double MeanLuma(const AVFrame& frame) {
  double sum = 0.0;
  for (int y = 0; y < frame.height; ++y) {
    const std::uint8_t* row = frame.data[0] + static_cast<std::ptrdiff_t>(y) * frame.linesize[0];
    sum += std::accumulate(row, row + frame.width, 0);
  }
  return sum / frame.width / frame.height;
}

void DecodeStream(AVFormatContext* format, AVStream* stream, DecodedVideo& result) {
  const AVCodec* codec = avcodec_find_decoder(stream->codecpar->codec_id);
  AVCodecContext* decoder = avcodec_alloc_context3(codec);
  avcodec_parameters_to_context(decoder, stream->codecpar);
  decoder->err_recognition = AV_EF_EXPLODE;
  avcodec_open2(decoder, codec, nullptr);
  AVPacket* packet = av_packet_alloc();
  AVFrame* frame = av_frame_alloc();
  for (bool more = true; more; av_packet_unref(packet)) {
    more = av_read_frame(format, packet) == 0;
    if (more && packet->stream_index != stream->index) continue;
    if (more) result.packets.emplace_back(reinterpret_cast<const char*>(packet->data), packet->size);
    // At the end the decoder is asked for what it still holds.
    int state = avcodec_send_packet(decoder, more ? packet : nullptr);
    while (state >= 0 && (state = avcodec_receive_frame(decoder, frame)) >= 0) {
      if (frame->decode_error_flags != 0) ++result.decodeErrors;
      // Decoder and parser have opinions of their own on key frames; only the index is the container's word.
      const auto* entry = avformat_index_get_entry_from_timestamp(stream, frame->pts, AVSEEK_FLAG_ANY);
      const bool key = entry != nullptr && (entry->flags & AVINDEX_KEYFRAME) != 0;
      result.frames.push_back({static_cast<double>(frame->pts) * av_q2d(stream->time_base), key, MeanLuma(*frame)});
    }
    if (state != AVERROR(EAGAIN) && state != AVERROR_EOF) ++result.decodeErrors;
  }
  av_frame_free(&frame);
  av_packet_free(&packet);
  avcodec_free_context(&decoder);
}

}  // namespace

DecodedVideo DecodeVideo(const std::string& path) {
  DecodedVideo result;
  AVFormatContext* format = nullptr;
  if (avformat_open_input(&format, path.c_str(), nullptr, nullptr) < 0) return result;
  avformat_find_stream_info(format, nullptr);
  for (AVStream* stream : std::span(format->streams, format->nb_streams)) {
    const AVCodecParameters& codec = *stream->codecpar;
    const double seconds = static_cast<double>(stream->duration) * av_q2d(stream->time_base);
    if (codec.codec_id == AV_CODEC_ID_MP3) result.audioSeconds = seconds;
    if (codec.codec_type != AVMEDIA_TYPE_VIDEO) continue;
    result.opened = true;
    result.width = codec.width;
    result.height = codec.height;
    result.rateNumerator = stream->avg_frame_rate.num;
    result.rateDenominator = stream->avg_frame_rate.den;
    result.durationSeconds = seconds;
    std::array<char, AV_FOURCC_MAX_STRING_SIZE> tag{};
    result.codecTag = av_fourcc_make_string(tag.data(), codec.codec_tag);
    DecodeStream(format, stream, result);
  }
  avformat_close_input(&format);
  std::ifstream file(path, std::ios::binary);
  const std::string text(std::istreambuf_iterator<char>(file), {});
  result.indexFirst = text.find("moov") < text.find("mdat");
  return result;
}

std::vector<double> FindFlashes(const DecodedVideo& video) {
  std::vector<double> times;
  double before = 255.0;
  for (const DecodedFrame& frame : video.frames) {
    if (frame.meanLuma > FlashLuma && before <= FlashLuma) times.push_back(frame.seconds);
    before = frame.meanLuma;
  }
  return times;
}

}  // namespace Tavi::Testing
