// Muxes an H.264 stream, with or without MP3 sound, into an MP4 file.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace KMedia {

/// One mux request. No re-encoding, no copy of the media data in between. Thread-bound; several may run at once.
///
/// The MP4 is written aside, synced and renamed: under the output's name there is a whole file or none, and an older
/// one is only replaced by a whole one. Every failure is one line in the log.
class FFMpeg {
 public:
  static constexpr std::size_t PathSize = 256;
  using Path = char[PathSize];

  struct FFmpefCfg {
    /// Frames per second of the video.
    float fps = 0.0F;
    /// H.264 byte stream, MP3 file, MP4 file to write; NUL-terminated.
    Path video{};
    Path audio{};
    Path output{};
    /// How much later than the video the sound begins, in nanoseconds; negative when it begins earlier. What lies
    /// before the first frame of video is left out, to a whole MP3 frame.
    std::int64_t audioDelayNs = 0;
    /// When each access unit of the video file was, by the source's clock, in nanoseconds; borrowed. Those behind the
    /// last one follow at the frame rate; with none all do.
    std::span<const std::uint64_t> timestampsNs;
  };

  /// Copies `path` into one of the record's fields. False, with a line in the log, when it has no room for it.
  static bool SetPath(Path& field, const std::string& path);

  /// Borrows the record.
  explicit FFMpeg(FFmpefCfg* config) : m_config(*config) {}

  /// Video and sound. False without a usable frame of video or sound, or when the file cannot be written.
  bool MuxVideoAndAudio();
  /// Video alone. A last access unit that was cut (a power failure, a full disk) is left out, with a line in the log;
  /// false when no usable frame remains or the file cannot be written.
  bool RemuxVideoFile();

 private:
  bool Mux(bool withAudio);

  const FFmpefCfg& m_config;
};

}  // namespace KMedia
