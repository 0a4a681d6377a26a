// Opens a produced file as a player would and decodes every frame of it.
#include "Support/VideoDecode.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>

namespace Tavi::Testing {
namespace {

/// Mean luma above which a frame is a flash; scenes stay well below.
constexpr double FlashLuma = 200.0;

double MeanLuma(const AVFrame& frame) {
  std::uint64_t sum = 0;
  for (int y = 0; y < frame.height; ++y) {
    const std::uint8_t* row = frame.data[0] + static_cast<std::ptrdiff_t>(y) * frame.linesize[0];
    for (int x = 0; x < frame.width; ++x) sum += row[x];
  }
  return static_cast<double>(sum) / (static_cast<double>(frame.width) * frame.height);
}

bool IsIndexFirst(const std::string& path) {
  std::string text;
  if (FILE* file = std::fopen(path.c_str(), "rb")) {
    std::array<char, 65536> block{};
    for (std::size_t n = 0; (n = std::fread(block.data(), 1, block.size(), file)) != 0;) text.append(block.data(), n);
    std::fclose(file);
  }
  const auto index = text.find("moov");
  return index != std::string::npos && index < text.find("mdat");
}

/// One open file and its decoder.
class Reader {
 public:
  explicit Reader(const std::string& path) {
    if (avformat_open_input(&m_format, path.c_str(), nullptr, nullptr) < 0) return;
    if (avformat_find_stream_info(m_format, nullptr) < 0) return;
    const AVCodec* codec = nullptr;
    m_video = av_find_best_stream(m_format, AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
    m_audio = av_find_best_stream(m_format, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    if (m_video < 0) return;
    m_decoder = avcodec_alloc_context3(codec);
    avcodec_parameters_to_context(m_decoder, m_format->streams[m_video]->codecpar);
    m_decoder->thread_count = 1;
    m_decoder->err_recognition = AV_EF_EXPLODE;
    m_open = avcodec_open2(m_decoder, codec, nullptr) == 0;
  }
  ~Reader() {
    av_packet_free(&m_packet);
    av_frame_free(&m_frame);
    avcodec_free_context(&m_decoder);
    avformat_close_input(&m_format);
  }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  void Read(DecodedVideo& result) {
    if (!m_open) return;
    Describe(result);
    while (av_read_frame(m_format, m_packet) == 0) {
      if (m_packet->stream_index == m_video) Decode(m_packet, result);
      if (m_packet->stream_index == m_audio) ++result.audioPackets;
      av_packet_unref(m_packet);
    }
    Decode(nullptr, result);
  }

 private:
  void Describe(DecodedVideo& result) {
    AVStream* stream = m_format->streams[m_video];
    // Decoder and parser have opinions of their own on key frames; only the index is the container's word.
    for (int i = 0; i < avformat_index_get_entries_count(stream); ++i) {
      const AVIndexEntry* entry = avformat_index_get_entry(stream, i);
      m_keys[entry->timestamp] = (entry->flags & AVINDEX_KEYFRAME) != 0;
    }
    result.opened = true;
    result.width = stream->codecpar->width;
    result.height = stream->codecpar->height;
    result.rateNumerator = stream->avg_frame_rate.num;
    result.rateDenominator = stream->avg_frame_rate.den;
    result.durationSeconds = static_cast<double>(stream->duration) * av_q2d(stream->time_base);
    std::array<char, AV_FOURCC_MAX_STRING_SIZE> tag{};
    result.codecTag = av_fourcc_make_string(tag.data(), stream->codecpar->codec_tag);
    result.hasHeaderParameterSets = stream->codecpar->extradata_size > 8 && stream->codecpar->extradata[0] == 1;
    if (m_audio < 0) return;
    const AVStream* audio = m_format->streams[m_audio];
    result.audioSeconds = static_cast<double>(audio->duration) * av_q2d(audio->time_base);
    result.audioIsMp3 = audio->codecpar->codec_id == AV_CODEC_ID_MP3;
  }

  void Decode(const AVPacket* packet, DecodedVideo& result) {
    if (packet != nullptr) m_keys.try_emplace(packet->pts, (packet->flags & AV_PKT_FLAG_KEY) != 0);
    if (avcodec_send_packet(m_decoder, packet) < 0) ++result.decodeErrors;
    int received = 0;
    while ((received = avcodec_receive_frame(m_decoder, m_frame)) == 0) {
      if (m_frame->decode_error_flags != 0) ++result.decodeErrors;
      const double seconds = static_cast<double>(m_frame->pts) * av_q2d(m_format->streams[m_video]->time_base);
      result.frames.push_back({seconds, m_keys[m_frame->pts], MeanLuma(*m_frame)});
    }
    if (received != AVERROR(EAGAIN) && received != AVERROR_EOF) ++result.decodeErrors;
  }

  AVFormatContext* m_format = nullptr;
  AVCodecContext* m_decoder = nullptr;
  AVPacket* m_packet = av_packet_alloc();
  AVFrame* m_frame = av_frame_alloc();
  /// By presentation time.
  std::map<std::int64_t, bool> m_keys;
  int m_video = -1;
  int m_audio = -1;
  bool m_open = false;
};

}  // namespace

DecodedVideo DecodeVideo(const std::string& path) {
  DecodedVideo result;
  Reader(path).Read(result);
  result.indexFirst = IsIndexFirst(path);
  return result;
}

std::vector<double> FindFlashes(const DecodedVideo& video) {
  std::vector<double> times;
  for (std::size_t i = 1; i < video.frames.size(); ++i) {
    if (video.frames[i].meanLuma > FlashLuma && video.frames[i - 1].meanLuma <= FlashLuma) {
      times.push_back(video.frames[i].seconds);
    }
  }
  return times;
}

}  // namespace Tavi::Testing
