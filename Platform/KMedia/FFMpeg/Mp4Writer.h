// Writes streams that are encoded already into an MP4 file.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "KMedia/FFMpeg/FrameTimes.h"
#include "KMedia/H264/AnnexB.h"
#include "KMedia/Mp3/Mp3Frames.h"

struct AVFormatContext;
struct AVPacket;
struct AVStream;

namespace KMedia {

/// The sound of an MP4.
struct Soundtrack {
  Mp3::Mp3Frames mp3;
  /// When its first frame is heard, in samples after the first frame of video.
  std::int64_t startSample = 0;

  /// Begins the sound so much after the video; with a negative delay the frames that come before it are left out.
  void Delay(std::int64_t delayNs);
};

/// One MP4: H.264 video with its parameter sets in the header and, when there is any, MP3 sound. The video's time
/// stamps start at 0 and are those of FrameTimes. The index stands before the data, in room
/// reserved for it, so that nothing is moved or read back. Samples go from their memory to the file without a copy.
/// Thread-bound.
class Mp4Writer {
 public:
  Mp4Writer() = default;
  ~Mp4Writer();
  Mp4Writer(const Mp4Writer&) = delete;
  Mp4Writer& operator=(const Mp4Writer&) = delete;

  /// Writes the whole file. False when anything failed; GetError tells what. The file is then incomplete.
  bool Write(const std::string& path, const H264::AccessUnits& video, const FrameTimes& times, const Soundtrack* sound);
  [[nodiscard]] const std::string& GetError() const { return m_error; }

 private:
  bool Open(const std::string& path);
  bool AddVideo(const H264::AccessUnits& video, const FrameTimes& times);
  bool AddAudio(const Mp3::Mp3Frames& audio);
  bool WriteHeader(std::size_t samples, std::size_t parameterSetBytes);
  bool WriteSamples(const H264::AccessUnits& video, const FrameTimes& times, const Soundtrack* sound);
  bool WriteSample(AVStream* stream, std::span<const std::uint8_t> bytes, std::int64_t time, std::int64_t nextTime,
                   bool key);
  bool Close();
  bool Fail(const std::string& action, int error);

  AVFormatContext* m_context = nullptr;
  AVStream* m_video = nullptr;
  AVStream* m_audio = nullptr;
  AVPacket* m_packet = nullptr;
  std::string m_error;
};

}  // namespace KMedia
