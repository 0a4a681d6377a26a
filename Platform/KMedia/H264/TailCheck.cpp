// Whether the last access unit of a stream is whole.
#include "KMedia/H264/TailCheck.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <algorithm>
#include <cstring>
#include <memory>
#include <span>

#include "KMedia/H264/DecoderLog.h"

namespace KMedia::H264 {
namespace {

struct FreeContext {
  void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct FreePacket {
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct FreeFrame {
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};

/// Decodes access units one after the other and remembers whether any had an error.
class Decoder {
 public:
  Decoder() : m_packet(av_packet_alloc()), m_frame(av_frame_alloc()) {
    const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_H264);
    m_context.reset(codec != nullptr ? avcodec_alloc_context3(codec) : nullptr);
    if (!m_context) return;
    m_context->thread_count = 1;
    m_context->err_recognition = AV_EF_EXPLODE;
    m_context->flags |= AV_CODEC_FLAG_LOW_DELAY | AV_CODEC_FLAG_OUTPUT_CORRUPT;
    m_context->flags2 |= AV_CODEC_FLAG2_SHOW_ALL;
    m_context->log_level_offset = SilentLogOffset;
    m_context->skip_loop_filter = AVDISCARD_ALL;
    m_usable = avcodec_open2(m_context.get(), codec, nullptr) == 0 && m_packet && m_frame;
  }

  [[nodiscard]] bool IsUsable() const { return m_usable; }

  /// False when the unit has errors or gives no picture.
  bool Decode(Bytes unit) {
    // To the decoder an empty packet is the end of everything.
    if (unit.empty()) return false;
    if (av_new_packet(m_packet.get(), static_cast<int>(unit.size())) < 0) return true;
    std::memcpy(m_packet->data, unit.data(), unit.size());
    const bool sent = avcodec_send_packet(m_context.get(), m_packet.get()) == 0;
    av_packet_unref(m_packet.get());
    bool clean = sent;
    bool any = false;
    while (sent && avcodec_receive_frame(m_context.get(), m_frame.get()) == 0) {
      any = true;
      clean = clean && m_frame->decode_error_flags == 0;
    }
    return clean && any;
  }

 private:
  std::unique_ptr<AVCodecContext, FreeContext> m_context;
  std::unique_ptr<AVPacket, FreePacket> m_packet;
  std::unique_ptr<AVFrame, FreeFrame> m_frame;
  bool m_usable = false;
};

/// Whether `last` decodes cleanly behind the pictures of `lead`. True also when there is no decoder to ask.
bool IsClean(Bytes parameterSets, std::span<const AccessUnit> lead, const AccessUnit& last) {
  Decoder decoder;
  if (!decoder.IsUsable()) return true;
  decoder.Decode(parameterSets);
  for (const AccessUnit& unit : lead) decoder.Decode(unit.bytes);
  return decoder.Decode(last.bytes);
}

}  // namespace

bool IsLastUnitWhole(const AccessUnits& stream) {
  const auto& units = stream.units;
  if (units.empty()) return false;
  const auto lastIdr = std::find_if(units.rbegin(), units.rend(), [](const AccessUnit& unit) { return unit.isIdr; });
  if (lastIdr == units.rend()) return false;
  const auto group = std::span(units).last(static_cast<std::size_t>(lastIdr - units.rbegin()) + 1);
  const auto lead = group.first(group.size() - 1);
  if (IsClean(stream.parameterSets, lead.first(std::min<std::size_t>(lead.size(), 1)), units.back())) return true;
  return lead.size() > 1 && IsClean(stream.parameterSets, lead, units.back());
}

}  // namespace KMedia::H264
