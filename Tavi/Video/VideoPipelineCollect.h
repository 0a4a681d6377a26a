// The collector of one camera: its access units as an H.264 stream, then as an MP4.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "Tavi/PipelineCollect/PipelineCollect.h"

namespace Tavi::Video {

class VideoPipelineCbElement;
struct StreamSetup;

/// Writes access units as the encoder made them, one behind the other (a byte stream, Rec. ITU-T H.264 annex B), with
/// the parameter sets before the first one where the encoder does not send them with each key frame, and turns the file
/// into an MP4 without re-encoding. Mux and BuildMp4 run on the manager's thread after the collect.
class VideoPipelineCollect final : public PipelineCollect::PipelineCollect {
 public:
  VideoPipelineCollect(Kbase::Pipeline::IPipelineElement* element, CameraType camera, bool cr);
  ~VideoPipelineCollect() override;

  static Tavi::PipelineCollect::PipelineCollectType GetVideoPipelineCollectType(CameraType camera);

  bool WriteHeader(FILE* file) override;
  bool Write(FILE* file, Kbase::Pipeline::IPipelineCbElement* entry) override;

  /// Muxes an H.264 file of `fps` frames a second with an MP3 file into `outPath`, which becomes `videoPath` with
  /// ".mp4" in place of ".h264". The sound begins `audioDelayNs` nanoseconds after the video, or before it when
  /// negative. True when that file exists and is not empty.
  static bool Mux(const std::string& videoPath, const std::string& audioPath, float fps, std::string& outPath,
                  std::int64_t audioDelayNs = 0);
  /// The same for this collect's file, which is replaced by the MP4. On failure nothing is left and the collect counts
  /// as not collected; with `keepsStream` it is tried without the sound, and then left as it is. Does nothing unless
  /// something was collected.
  void Mux(const std::string& audioPath, std::int64_t audioDelayNs = 0, bool keepsStream = false);
  /// The same without sound.
  static bool BuildMp4(const std::string& videoPath, float fps, std::string& outPath);
  void BuildMp4(bool keepsStream = false);

 private:
  bool WriteSetup(FILE* file, const VideoPipelineCbElement& entry, std::span<const std::uint8_t> accessUnit);
  void Replace(const std::string& mp4Path);
  void Lose(bool keepsStream);

  /// What the file has been told of; belongs to the thread that collects.
  std::shared_ptr<const StreamSetup> m_writtenSetup;
};

}  // namespace Tavi::Video
