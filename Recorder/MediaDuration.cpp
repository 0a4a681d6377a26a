// How long a media file plays.
#include "Recorder/MediaDuration.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace Tavi::Recorder {

std::optional<double> ReadMediaDuration(const std::string& path) {
  AVFormatContext* context = nullptr;
  if (avformat_open_input(&context, path.c_str(), nullptr, nullptr) < 0) return std::nullopt;
  const bool known = context->duration != AV_NOPTS_VALUE && context->duration > 0;
  const double seconds = static_cast<double>(context->duration) / AV_TIME_BASE;
  avformat_close_input(&context);
  return known ? std::optional(seconds) : std::nullopt;
}

}  // namespace Tavi::Recorder
