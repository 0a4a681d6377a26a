// What the parameter sets of an H.264 stream say.
#include "KMedia/H264/ParameterSets.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "KMedia/H264/DecoderLog.h"

namespace KMedia::H264 {
ImgUtils::PictureSize ReadPictureSize(const AccessUnits& video) {
  ImgUtils::PictureSize size;
  AVCodecParserContext* parser = av_parser_init(AV_CODEC_ID_H264);
  AVCodecContext* context = avcodec_alloc_context3(nullptr);
  if (parser != nullptr && context != nullptr && !video.units.empty()) {
    parser->flags |= PARSER_FLAG_COMPLETE_FRAMES;
    context->log_level_offset = SilentLogOffset;
    std::vector<std::uint8_t> start = video.parameterSets;
    const auto& first = video.units.front().bytes;
    start.insert(start.end(), first.begin(), first.end());
    const auto length = static_cast<int>(start.size());
    start.resize(start.size() + AV_INPUT_BUFFER_PADDING_SIZE);
    std::uint8_t* out = nullptr;
    int outSize = 0;
    av_parser_parse2(parser, context, &out, &outSize, start.data(), length, AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
    size = {parser->width, parser->height};
  }
  if (parser != nullptr) av_parser_close(parser);
  avcodec_free_context(&context);
  return size;
}

}  // namespace KMedia::H264
