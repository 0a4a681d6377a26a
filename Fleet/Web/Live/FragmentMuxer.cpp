// One camera's pictures as fragmented MP4, as browsers take it.
#include "Fleet/Web/Live/FragmentMuxer.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/opt.h>
}

#include <array>
#include <cstring>

namespace Tavi::Web {
namespace {

/// Fragments are cut by TakeFragment only; each has its own time, as the stream may have gaps; the muxer keeps no
/// index.
constexpr const char* Flags = "empty_moov+default_base_moof+frag_custom+frag_discont+skip_trailer+skip_sidx";

bool Fail(std::string& problem, const char* action, int error) {
  std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
  av_strerror(error, text.data(), text.size());
  problem = std::string("cannot ") + action + ": " + text.data();
  return false;
}

bool SetExtraData(AVCodecParameters& parameters, std::span<const std::uint8_t> data) {
  auto* copy = static_cast<std::uint8_t*>(av_mallocz(data.size() + AV_INPUT_BUFFER_PADDING_SIZE));
  if (copy == nullptr) return false;
  std::memcpy(copy, data.data(), data.size());
  parameters.extradata = copy;
  parameters.extradata_size = static_cast<int>(data.size());
  return true;
}

}  // namespace

FragmentMuxer::~FragmentMuxer() {
  av_packet_free(&m_packet);
  if (m_context == nullptr) return;
  TakeOutput();
  avformat_free_context(m_context);
}

std::unique_ptr<FragmentMuxer> FragmentMuxer::Open(const Video& video, std::string& problem) {
  std::unique_ptr<FragmentMuxer> muxer(new FragmentMuxer);
  if (!muxer->Prepare(problem)) return nullptr;
  AVCodecParameters& parameters = *muxer->m_stream->codecpar;
  parameters.codec_type = AVMEDIA_TYPE_VIDEO;
  parameters.codec_id = AV_CODEC_ID_H264;
  parameters.width = video.width;
  parameters.height = video.height;
  if (!SetExtraData(parameters, video.parameterSets)) return nullptr;
  return muxer->WriteInit(problem) ? std::move(muxer) : nullptr;
}

bool FragmentMuxer::Prepare(std::string& problem) {
  m_packet = av_packet_alloc();
  const int error = avformat_alloc_output_context2(&m_context, nullptr, "mp4", nullptr);
  if (error < 0 || m_packet == nullptr) return Fail(problem, "prepare", error < 0 ? error : AVERROR(ENOMEM));
  m_context->avoid_negative_ts = AVFMT_AVOID_NEG_TS_DISABLED;
  m_stream = avformat_new_stream(m_context, nullptr);
  return m_stream != nullptr || Fail(problem, "prepare", AVERROR(ENOMEM));
}

bool FragmentMuxer::WriteInit(std::string& problem) {
  m_stream->time_base = {1, TicksPerSecond};
  int error = avio_open_dyn_buf(&m_context->pb);
  if (error < 0) return Fail(problem, "prepare", error);
  AVDictionary* options = nullptr;
  av_dict_set(&options, "movflags", Flags, 0);
  // Times are as they are given, not relative to the first.
  av_dict_set(&options, "use_editlist", "0", 0);
  error = avformat_write_header(m_context, &options);
  av_dict_free(&options);
  if (error < 0) return Fail(problem, "write the init segment", error);
  m_init = TakeOutput();
  return true;
}

bool FragmentMuxer::Add(std::span<const std::uint8_t> bytes, std::int64_t time, std::int64_t duration,
                        bool isKeyFrame) {
  if (m_context->pb == nullptr && avio_open_dyn_buf(&m_context->pb) < 0) return false;
  // libavformat does not write into a packet's data; it only has no const for it.
  m_packet->data = const_cast<std::uint8_t*>(bytes.data());
  m_packet->size = static_cast<int>(bytes.size());
  m_packet->stream_index = m_stream->index;
  m_packet->flags = isKeyFrame ? AV_PKT_FLAG_KEY : 0;
  m_packet->pts = time;
  m_packet->dts = time;
  m_packet->duration = duration;
  const int error = av_write_frame(m_context, m_packet);
  m_packet->data = nullptr;
  m_packet->size = 0;
  return error >= 0;
}

std::vector<std::uint8_t> FragmentMuxer::TakeFragment() {
  if (m_context->pb == nullptr) return {};
  const int error = av_write_frame(m_context, nullptr);
  auto fragment = TakeOutput();
  if (error < 0) fragment.clear();
  return fragment;
}

std::vector<std::uint8_t> FragmentMuxer::TakeOutput() {
  if (m_context->pb == nullptr) return {};
  std::uint8_t* bytes = nullptr;
  const int size = avio_close_dyn_buf(m_context->pb, &bytes);
  m_context->pb = nullptr;
  std::vector<std::uint8_t> output(bytes, bytes + size);
  av_free(bytes);
  return output;
}

}  // namespace Tavi::Web
