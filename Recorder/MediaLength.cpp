// How long a media file is.
#include "Recorder/MediaLength.h"

#include <memory>

extern "C" {
#include <libavcodec/packet.h>
#include <libavformat/avformat.h>
}

namespace Tavi::Recorder {
namespace {

struct CloseInput {
  void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};
struct FreePacket {
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};

/// Counts what the container does not state.
MediaLength CountPackets(AVFormatContext& context, int index) {
  MediaLength length;
  std::int64_t ticks = 0;
  const std::unique_ptr<AVPacket, FreePacket> packet(av_packet_alloc());
  for (; packet && av_read_frame(&context, packet.get()) >= 0; av_packet_unref(packet.get())) {
    if (packet->stream_index != index) continue;
    ++length.frames;
    ticks += packet->duration;
  }
  length.seconds = static_cast<double>(ticks) * av_q2d(context.streams[index]->time_base);
  return length;
}

}  // namespace

std::optional<MediaLength> ReadMediaLength(const std::string& path) {
  av_log_set_level(AV_LOG_ERROR);  // that an MP3 file's duration is estimated from its bit rate is no news
  AVFormatContext* opened = nullptr;
  if (avformat_open_input(&opened, path.c_str(), nullptr, nullptr) < 0) return std::nullopt;
  const std::unique_ptr<AVFormatContext, CloseInput> context(opened);
  avformat_find_stream_info(context.get(), nullptr);
  int index = av_find_best_stream(context.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
  if (index < 0) index = av_find_best_stream(context.get(), AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
  if (index < 0) return std::nullopt;
  const AVStream& stream = *context->streams[index];
  if (stream.nb_frames <= 0 || stream.duration <= 0) return CountPackets(*context, index);
  return MediaLength{static_cast<double>(stream.duration) * av_q2d(stream.time_base),
                     static_cast<std::uint64_t>(stream.nb_frames)};
}

}  // namespace Tavi::Recorder
