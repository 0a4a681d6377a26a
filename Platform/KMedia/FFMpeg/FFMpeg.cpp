// Muxes an H.264 stream, with or without MP3 sound, into an MP4 file.
#include "KMedia/FFMpeg/FFMpeg.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "KMedia/FFMpeg/FileBytes.h"
#include "KMedia/FFMpeg/Mp4Writer.h"
#include "KMedia/H264/TailCheck.h"
#include "Kbase/Klog/Logger.h"
#include "Ksystem/FileUtils/AsideFile.h"

namespace KMedia {
namespace {

constexpr const char* Tag = "Kmedia";

bool Fail(const std::string& message) {
  Kbase::Klog::Logger::GetInstance().Error(Tag, message);
  return false;
}

bool FailWithErrno(const std::string& message) {
  return Fail(message + ": " + std::strerror(errno));
}

/// A caller may have filled a field to its last character by other means than SetPath.
bool IsTerminated(const FFMpeg::Path& field) {
  return std::memchr(field, '\0', FFMpeg::PathSize) != nullptr;
}

/// Leaves out what a cut has made unusable at the end of the stream; the caller reports when nothing is left.
void DropDamagedTail(H264::AccessUnits& video, const std::string& path) {
  std::size_t dropped = video.trailingBytes;
  if (!video.units.empty() && !H264::IsLastUnitWhole(video)) {
    dropped += video.units.back().bytes.size();
    video.units.pop_back();
  }
  if (dropped == 0 || video.units.empty()) return;
  Kbase::Klog::Logger::GetInstance().Warning(
      Tag, path + " ends within a frame: its last " + std::to_string(dropped) + " bytes are left out");
}

/// False when no frame of the sound falls into the video's time.
bool IsHeard(const Soundtrack& sound, const FrameTimes& times) {
  const double from = static_cast<double>(sound.startSample) / sound.mp3.sampleRate;
  return !sound.mp3.frames.empty() && from < times.GetEndSeconds();
}

/// Writes the MP4 aside and gives it its name once it is whole.
bool WriteWhole(const std::string& path, const H264::AccessUnits& video, const FrameTimes& times,
                const Soundtrack* sound) {
  Ksystem::FileUtils::AsideFile file(path);
  Mp4Writer writer;
  if (!writer.Write(file.GetAsidePath(), video, times, sound)) {
    return Fail("cannot mux into " + path + ": " + writer.GetError());
  }
  return file.Commit() || FailWithErrno("cannot finish " + path);
}

}  // namespace

bool FFMpeg::SetPath(Path& field, const std::string& path) {
  if (path.size() >= PathSize) return Fail("the path " + path + " is longer than " + std::to_string(PathSize - 1));
  std::memcpy(field, path.c_str(), path.size() + 1);
  return true;
}

bool FFMpeg::MuxVideoAndAudio() {
  return Mux(true);
}

bool FFMpeg::RemuxVideoFile() {
  return Mux(false);
}

bool FFMpeg::Mux(bool withAudio) {
  if (!IsTerminated(m_config.video) || !IsTerminated(m_config.audio) || !IsTerminated(m_config.output)) {
    return Fail("a path of the mux request is longer than " + std::to_string(PathSize - 1));
  }
  const FrameRate rate = FrameRate::FromFps(m_config.fps);
  if (rate.numerator == 0)
    return Fail(std::string(m_config.video) + ": " + std::to_string(m_config.fps) + " is no frame rate");
  FileBytes videoFile;
  if (!videoFile.Load(m_config.video)) return FailWithErrno(std::string("cannot read ") + m_config.video);
  auto video = H264::SplitAccessUnits(videoFile.Get());
  DropDamagedTail(video, m_config.video);
  if (video.units.empty()) return Fail(std::string(m_config.video) + " holds no frame that a decoder could start with");

  // What no decoder can begin with is not in the clip; its time is not, either.
  const auto all = m_config.timestampsNs;
  const auto stamped = all.subspan(std::min(video.leadingUnits, all.size()));
  const std::int64_t leftOutNs = stamped.empty() ? 0 : static_cast<std::int64_t>(stamped.front() - all.front());
  const FrameTimes times(rate, stamped, video.units.size());

  FileBytes audioFile;
  Soundtrack sound;
  if (withAudio) {
    if (!audioFile.Load(m_config.audio)) return FailWithErrno(std::string("cannot read ") + m_config.audio);
    sound.mp3 = Mp3::SplitMp3Frames(audioFile.Get());
    if (sound.mp3.frames.empty()) return Fail(std::string(m_config.audio) + " holds no MP3 frame");
    sound.Delay(m_config.audioDelayNs - leftOutNs);
  }
  const bool hasSound = withAudio && IsHeard(sound, times);
  if (withAudio && !hasSound) {
    Kbase::Klog::Logger::GetInstance().Warning(
        Tag, std::string(m_config.audio) + " lies outside the time of " + m_config.video + ": there is no sound");
  }
  return WriteWhole(m_config.output, video, times, hasSound ? &sound : nullptr);
}

}  // namespace KMedia
