// How long a media file plays.
#include "Recorder/MediaDuration.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace Tavi::Recorder {

std::optional<double> ReadMediaDuration(const std::string& path) {
  av_log_set_level(AV_LOG_ERROR);  // that an MP3 file's duration is estimated from its bit rate is no news
  AVFormatContext* context = nullptr;
  if (avformat_open_input(&context, path.c_str(), nullptr, nullptr) < 0) return std::nullopt;
  avformat_find_stream_info(context, nullptr);
  int index = av_find_best_stream(context, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
  if (index < 0) index = av_find_best_stream(context, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
  std::optional<double> seconds;
  if (index >= 0 && context->streams[index]->duration > 0) {
    seconds = static_cast<double>(context->streams[index]->duration) * av_q2d(context->streams[index]->time_base);
  }
  avformat_close_input(&context);
  return seconds;
}

}  // namespace Tavi::Recorder
