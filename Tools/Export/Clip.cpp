// The pictures of an event's clip, as the encoder made them.
#include "Tools/Export/Clip.h"

#include <sys/stat.h>
#include <unistd.h>

extern "C" {
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
}

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>

#include "EventStore/Storage.h"

namespace Tavi::EventTools {
namespace {

using Ksystem::FileUtils::UniqueFd;

constexpr int BufferBytes = 64 * 1024;

struct Closer {
  void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
  void operator()(AVBSFContext* filter) const { av_bsf_free(&filter); }
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
  void operator()(AVIOContext* io) const {
    // The library may have put another buffer in the first one's place.
    av_freep(&io->buffer);
    avio_context_free(&io);
  }
};
template <typename Type>
using Owned = std::unique_ptr<Type, Closer>;

int ReadBytes(void* opaque, std::uint8_t* target, int size) {
  while (true) {
    const ssize_t count = read(static_cast<const UniqueFd*>(opaque)->Get(), target, static_cast<std::size_t>(size));
    if (count > 0) return static_cast<int>(count);
    if (count == 0) return AVERROR_EOF;
    if (errno != EINTR) return AVERROR(errno);
  }
}

std::int64_t SeekBytes(void* opaque, std::int64_t offset, int whence) {
  const int fd = static_cast<const UniqueFd*>(opaque)->Get();
  if ((whence & AVSEEK_SIZE) != 0) {
    struct stat status {};
    return fstat(fd, &status) == 0 ? status.st_size : AVERROR(errno);
  }
  const off_t position = lseek(fd, offset, whence & ~AVSEEK_FORCE);
  return position >= 0 ? position : AVERROR(errno);
}

std::string Describe(int error) {
  std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
  av_strerror(error, text.data(), text.size());
  return text.data();
}

/// One clip while it is read. Its file is opened by us: a path could be a pipe, or name a protocol.
class ClipFile {
 public:
  /// Each false with `GetProblem` telling.
  bool Open(const std::string& path, ClipForm form) {
    m_file = EventStore::OpenRegularFile(path, m_problem);
    if (!m_file.IsValid()) return false;
    m_path = path;
    m_io.reset(avio_alloc_context(static_cast<unsigned char*>(av_malloc(BufferBytes)), BufferBytes, 0, &m_file,
                                  ReadBytes, nullptr, SeekBytes));
    AVFormatContext* context = avformat_alloc_context();
    if (!m_io || context == nullptr) return Fail("cannot be read", AVERROR(ENOMEM));
    context->pb = m_io.get();
    // The form is told and not guessed: there are others that lead to further files.
    const auto* format = av_find_input_format(form == ClipForm::Mp4 ? "mov" : "h264");
    const int error = avformat_open_input(&context, nullptr, format, nullptr);
    m_context.reset(error < 0 ? nullptr : context);
    if (error < 0) return Fail("cannot be read", error);
    return FindVideo() && MakeFilter(form);
  }

  void Read(const std::function<void(const ClipFrame&)>& take) {
    const Owned<AVPacket> packet(av_packet_alloc());
    int error = packet ? av_read_frame(m_context.get(), packet.get()) : AVERROR(ENOMEM);
    for (; error >= 0; error = av_read_frame(m_context.get(), packet.get())) {
      const bool isOurs = packet->stream_index == m_video->index;
      const bool isWhole = (packet->flags & AV_PKT_FLAG_CORRUPT) == 0;
      if (isOurs && (!isWhole || !Hand(*packet, take))) break;
      av_packet_unref(packet.get());
    }
    if (error < 0 && error != AVERROR_EOF) Fail(fmt::format("cannot be read behind frame {}", m_count), error);
    const auto told = static_cast<std::size_t>(std::max<std::int64_t>(m_video->nb_frames, 0));
    if (error >= 0) {
      Say(fmt::format("frame {} is cut off or damaged", m_count + 1));
    } else if (m_problem.empty() && m_count < told) {
      Say(fmt::format("has {} of {} frames", m_count, told));
    } else if (m_problem.empty() && m_count == 0) {
      Say("has no frame");
    }
  }
  [[nodiscard]] const std::string& GetProblem() const { return m_problem; }

 private:
  bool FindVideo() {
    for (unsigned i = 0; i < m_context->nb_streams; ++i) {
      AVStream* stream = m_context->streams[i];
      const bool isVideo = m_video == nullptr && stream->codecpar->codec_id == AV_CODEC_ID_H264;
      if (isVideo) m_video = stream;
      stream->discard = isVideo ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
    }
    return m_video != nullptr || Say("has no H.264 video");
  }

  /// From lengths before each unit to start codes, with the parameter sets where a decoder can begin.
  bool MakeFilter(ClipForm form) {
    if (form == ClipForm::Stream) return true;
    AVBSFContext* filter = nullptr;
    const auto* kind = av_bsf_get_by_name("h264_mp4toannexb");
    int error = kind != nullptr ? av_bsf_alloc(kind, &filter) : AVERROR_BSF_NOT_FOUND;
    m_filter.reset(filter);
    if (error >= 0) error = avcodec_parameters_copy(filter->par_in, m_video->codecpar);
    if (error >= 0) error = av_bsf_init(filter);
    return error >= 0 || Fail("cannot be read", error);
  }

  bool Hand(AVPacket& packet, const std::function<void(const ClipFrame&)>& take) {
    if (m_filter &&
        (av_bsf_send_packet(m_filter.get(), &packet) < 0 || av_bsf_receive_packet(m_filter.get(), &packet) < 0)) {
      return false;
    }
    if (packet.size <= 0) return false;
    const double seconds =
        packet.pts == AV_NOPTS_VALUE || !m_filter ? 0.0 : static_cast<double>(packet.pts) * av_q2d(m_video->time_base);
    take({m_count++, seconds, {reinterpret_cast<const char*>(packet.data), static_cast<std::size_t>(packet.size)}});
    return true;
  }

  bool Fail(const std::string& what, int error) { return Say(what + ": " + Describe(error)); }
  bool Say(const std::string& what) {
    m_problem = m_path + ": " + what;
    return false;
  }

  std::string m_path;
  UniqueFd m_file;
  Owned<AVIOContext> m_io;
  Owned<AVFormatContext> m_context;
  Owned<AVBSFContext> m_filter;
  AVStream* m_video = nullptr;
  std::size_t m_count = 0;
  std::string m_problem;
};

}  // namespace

std::string ReadClip(const std::string& path, ClipForm form, const std::function<void(const ClipFrame&)>& take) {
  // What is wrong is said once, by who asked.
  av_log_set_level(AV_LOG_QUIET);
  ClipFile clip;
  if (clip.Open(path, form)) clip.Read(take);
  return clip.GetProblem();
}

}  // namespace Tavi::EventTools
