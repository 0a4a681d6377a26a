// The collector of one camera.
#include "Tavi/Video/VideoPipelineCollect.h"

#include "KMedia/FFMpeg/FFMpeg.h"
#include "Kbase/Util/Naming.h"
#include "Ksystem/FileUtils/Kfile.h"
#include "Tavi/GstUtil/BufferMap.h"
#include "Tavi/PipelineCollect/EntryTimes.h"
#include "Tavi/Video/VideoPipelineCbElement.h"

namespace Tavi::Video {

using KMedia::FFMpeg;
using Ksystem::FileUtils::Kfile;
using Tavi::PipelineCollect::PipelineCollectType;

namespace {

/// When the stream's frames were, as far as a companion beside it tells.
std::vector<std::uint64_t> ReadTimestamps(const std::string& videoPath) {
  std::vector<std::uint64_t> timestamps;
  const auto times = Tavi::PipelineCollect::ReadTimesOf(videoPath);
  if (!times || !times->hasCaptureTimes) return timestamps;
  for (const auto& entry : times->entries) {
    // From one that does not tell on the frames go by the rate.
    if (!entry.timestampNs) break;
    timestamps.push_back(*entry.timestampNs);
  }
  return timestamps;
}

constexpr const char* StreamExtension = ".h264";
constexpr const char* Mp4Extension = ".mp4";

std::string BuildThreadName(CameraType camera, bool cr) {
  return std::string(camera == CameraType::Camera0 ? "COLLECT-CAM1" : "COLLECT-CAM0") + (cr ? "-CR" : "");
}

}  // namespace

VideoPipelineCollect::VideoPipelineCollect(Kbase::Pipeline::IPipelineElement* element, CameraType camera, bool cr)
    : PipelineCollect(element, GetVideoPipelineCollectType(camera), BuildThreadName(camera, cr)) {}

VideoPipelineCollect::~VideoPipelineCollect() {
  Stop();
}

PipelineCollectType VideoPipelineCollect::GetVideoPipelineCollectType(CameraType camera) {
  return camera == CameraType::Camera0 ? PipelineCollectType::VideoCamera1 : PipelineCollectType::VideoCamera0;
}

bool VideoPipelineCollect::Write(FILE* file, Kbase::Pipeline::IPipelineCbElement* entry) {
  const GstUtil::BufferMap map(dynamic_cast<const VideoPipelineCbElement*>(entry));
  if (file == nullptr || !map.IsMapped()) return false;
  return Kfile::Write(map.GetBytes().data(), map.GetBytes().size(), file);
}

bool VideoPipelineCollect::Mux(const std::string& videoPath, const std::string& audioPath, float fps,
                               std::string& outPath, std::int64_t audioDelayNs) {
  outPath = Kbase::Util::Replace(videoPath, StreamExtension, Mp4Extension);
  const auto timestamps = ReadTimestamps(videoPath);
  FFMpeg::FFmpefCfg config;
  config.fps = fps;
  config.timestampsNs = timestamps;
  config.audioDelayNs = audioDelayNs;
  if (!FFMpeg::SetPath(config.video, videoPath) || !FFMpeg::SetPath(config.audio, audioPath) ||
      !FFMpeg::SetPath(config.output, outPath)) {
    return false;
  }
  FFMpeg(&config).MuxVideoAndAudio();
  return IsPathAvailable(outPath);
}

bool VideoPipelineCollect::BuildMp4(const std::string& videoPath, float fps, std::string& outPath) {
  outPath = Kbase::Util::Replace(videoPath, StreamExtension, Mp4Extension);
  const auto timestamps = ReadTimestamps(videoPath);
  FFMpeg::FFmpefCfg config;
  config.fps = fps;
  config.timestampsNs = timestamps;
  if (!FFMpeg::SetPath(config.video, videoPath) || !FFMpeg::SetPath(config.output, outPath)) return false;
  FFMpeg(&config).RemuxVideoFile();
  return IsPathAvailable(outPath);
}

void VideoPipelineCollect::Mux(const std::string& audioPath, std::int64_t audioDelayNs) {
  if (!m_collected) return;
  std::string mp4Path;
  Replace(Mux(m_path, audioPath, GetCollectedFps(), mp4Path, audioDelayNs), mp4Path);
}

void VideoPipelineCollect::BuildMp4() {
  if (!m_collected) return;
  std::string mp4Path;
  Replace(BuildMp4(m_path, GetCollectedFps(), mp4Path), mp4Path);
}

void VideoPipelineCollect::Replace(bool muxed, const std::string& mp4Path) {
  Kfile(m_path, true).Remove();
  Kfile(m_path + std::string(Tavi::PipelineCollect::TimesSuffix), true).Remove();
  if (muxed) {
    m_path = mp4Path;
  } else {
    m_collected = false;
  }
}

}  // namespace Tavi::Video
