// Writes streams that are encoded already into an MP4 file.
#include "KMedia/FFMpeg/Mp4Writer.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/opt.h>
}

#include <algorithm>
#include <array>
#include <cstring>

#include "KMedia/H264/ParameterSets.h"

namespace KMedia {

namespace {

/// More than the index takes: per sample a size, a chunk offset, a chunk run, a duration run and a sync entry (ISO/IEC
/// 14496-12, 8.6 and 8.7), and the boxes around them.
constexpr std::size_t IndexBytesPerSample = 48;
constexpr std::size_t IndexBytesFixed = 16384;

constexpr std::int64_t NsPerSecond = 1'000'000'000;

bool SetExtraData(AVCodecParameters* parameters, const std::vector<std::uint8_t>& data) {
  auto* copy = static_cast<std::uint8_t*>(av_mallocz(data.size() + AV_INPUT_BUFFER_PADDING_SIZE));
  if (copy == nullptr) return false;
  std::memcpy(copy, data.data(), data.size());
  parameters->extradata = copy;
  parameters->extradata_size = static_cast<int>(data.size());
  return true;
}

}  // namespace

void Soundtrack::Delay(std::int64_t delayNs) {
  if (mp3.sampleRate <= 0 || mp3.samplesPerFrame <= 0) return;
  startSample = av_rescale(delayNs, mp3.sampleRate, NsPerSecond);
  if (startSample >= 0) return;
  const std::int64_t early = (mp3.samplesPerFrame - 1 - startSample) / mp3.samplesPerFrame;
  const auto dropped = std::min(early, static_cast<std::int64_t>(mp3.frames.size()));
  mp3.frames.erase(mp3.frames.begin(), mp3.frames.begin() + dropped);
  startSample += dropped * mp3.samplesPerFrame;
}

Mp4Writer::~Mp4Writer() {
  av_packet_free(&m_packet);
  if (m_context == nullptr) return;
  avio_closep(&m_context->pb);
  avformat_free_context(m_context);
}

bool Mp4Writer::Fail(const std::string& action, int error) {
  std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
  av_strerror(error, text.data(), text.size());
  m_error = action + ": " + text.data();
  return false;
}

bool Mp4Writer::Write(const std::string& path, const H264::AccessUnits& video, const FrameTimes& times,
                      const Soundtrack* sound) {
  const std::size_t samples = video.units.size() + (sound != nullptr ? sound->mp3.frames.size() : 0);
  return Open(path) && AddVideo(video, times) && (sound == nullptr || AddAudio(sound->mp3)) &&
         WriteHeader(samples, video.parameterSets.size()) && WriteSamples(video, times, sound) && Close();
}

bool Mp4Writer::Open(const std::string& path) {
  // The prefix keeps a colon in the path from being taken for a protocol.
  const std::string url = "file:" + path;
  m_packet = av_packet_alloc();
  if (const int error = avformat_alloc_output_context2(&m_context, nullptr, "mp4", url.c_str()); error < 0) {
    return Fail("prepare", error);
  }
  const int error = avio_open(&m_context->pb, url.c_str(), AVIO_FLAG_WRITE);
  return error >= 0 && m_packet != nullptr ? true : Fail("create", error);
}

bool Mp4Writer::AddVideo(const H264::AccessUnits& video, const FrameTimes& times) {
  const ImgUtils::PictureSize size = H264::ReadPictureSize(video);
  if (size.width <= 0 || size.height <= 0) return Fail("read the picture's size", AVERROR_INVALIDDATA);
  m_video = avformat_new_stream(m_context, nullptr);
  if (m_video == nullptr || !SetExtraData(m_video->codecpar, video.parameterSets))
    return Fail("prepare", AVERROR(ENOMEM));
  m_video->codecpar->codec_type = AVMEDIA_TYPE_VIDEO;
  m_video->codecpar->codec_id = AV_CODEC_ID_H264;
  m_video->codecpar->width = size.width;
  m_video->codecpar->height = size.height;
  m_video->time_base = {times.GetUnit().numerator, times.GetUnit().denominator};
  m_video->avg_frame_rate = {times.GetRate().numerator, times.GetRate().denominator};
  return true;
}

bool Mp4Writer::AddAudio(const Mp3::Mp3Frames& audio) {
  m_audio = avformat_new_stream(m_context, nullptr);
  if (m_audio == nullptr) return Fail("prepare", AVERROR(ENOMEM));
  m_audio->codecpar->codec_type = AVMEDIA_TYPE_AUDIO;
  m_audio->codecpar->codec_id = AV_CODEC_ID_MP3;
  m_audio->codecpar->sample_rate = audio.sampleRate;
  m_audio->codecpar->bit_rate = audio.bitRate;
  m_audio->codecpar->frame_size = audio.samplesPerFrame;
  av_channel_layout_default(&m_audio->codecpar->ch_layout, audio.channels);
  m_audio->time_base = {1, audio.sampleRate};
  return true;
}

bool Mp4Writer::WriteHeader(std::size_t samples, std::size_t parameterSetBytes) {
  const std::size_t reserved = IndexBytesFixed + parameterSetBytes + samples * IndexBytesPerSample;
  AVDictionary* options = nullptr;
  av_dict_set_int(&options, "moov_size", static_cast<std::int64_t>(reserved), 0);
  const int error = avformat_write_header(m_context, &options);
  av_dict_free(&options);
  return error >= 0 ? true : Fail("write the header", error);
}

bool Mp4Writer::WriteSamples(const H264::AccessUnits& video, const FrameTimes& times, const Soundtrack* sound) {
  const AVRational unit{times.GetUnit().numerator, times.GetUnit().denominator};
  const auto videoTime = [&](std::size_t n) { return av_rescale_q(times.GetTime(n), unit, m_video->time_base); };
  const auto soundTime = [&](std::size_t n) {
    const std::int64_t sample = sound->startSample + static_cast<std::int64_t>(n) * sound->mp3.samplesPerFrame;
    return av_rescale_q(sample, {1, sound->mp3.sampleRate}, m_audio->time_base);
  };
  const std::size_t videoCount = video.units.size();
  const std::size_t soundCount = sound != nullptr ? sound->mp3.frames.size() : 0;
  std::size_t v = 0;
  std::size_t s = 0;
  while (v < videoCount || s < soundCount) {
    // In order of time, so that a player reads the file from front to back.
    const bool videoFirst = s == soundCount || (v < videoCount && av_compare_ts(videoTime(v), m_video->time_base,
                                                                                soundTime(s), m_audio->time_base) <= 0);
    const bool written =
        videoFirst ? WriteSample(m_video, video.units[v].bytes, videoTime(v), videoTime(v + 1), video.units[v].isIdr)
                   : WriteSample(m_audio, sound->mp3.frames[s], soundTime(s), soundTime(s + 1), true);
    if (!written) return false;
    ++(videoFirst ? v : s);
  }
  return true;
}

/// One sample that lasts from `time` to `nextTime`, in units of the stream's time base.
bool Mp4Writer::WriteSample(AVStream* stream, std::span<const std::uint8_t> bytes, std::int64_t time,
                            std::int64_t nextTime, bool key) {
  // libavformat does not write into a packet's data; it only has no const for it.
  m_packet->data = const_cast<std::uint8_t*>(bytes.data());
  m_packet->size = static_cast<int>(bytes.size());
  m_packet->stream_index = stream->index;
  m_packet->flags = key ? AV_PKT_FLAG_KEY : 0;
  m_packet->pts = time;
  m_packet->dts = time;
  m_packet->duration = nextTime - time;
  const int error = av_write_frame(m_context, m_packet);
  m_packet->data = nullptr;
  m_packet->size = 0;
  return error >= 0 ? true : Fail("write", error);
}

bool Mp4Writer::Close() {
  int error = av_write_trailer(m_context);
  if (error >= 0) error = m_context->pb->error;
  const int closeError = avio_closep(&m_context->pb);
  if (error >= 0) error = closeError;
  return error >= 0 ? true : Fail("write", error);
}

}  // namespace KMedia
