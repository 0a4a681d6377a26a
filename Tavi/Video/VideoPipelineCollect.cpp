// The collector of one camera.
#include "Tavi/Video/VideoPipelineCollect.h"

#include "KMedia/FFMpeg/FFMpeg.h"
#include "Kbase/Util/Naming.h"
#include "Ksystem/FileUtils/Kfile.h"
#include "Tavi/GstUtil/BufferMap.h"
#include "Tavi/GstUtil/Log.h"
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

using PipelineCollect::StreamExtension;

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

bool VideoPipelineCollect::WriteHeader(FILE* /*file*/) {
  m_writtenSetup.reset();
  return true;
}

bool VideoPipelineCollect::Write(FILE* file, Kbase::Pipeline::IPipelineCbElement* entry) {
  const auto* frame = dynamic_cast<const VideoPipelineCbElement*>(entry);
  const GstUtil::BufferMap map(frame);
  if (file == nullptr || !map.IsMapped()) return false;
  return WriteSetup(file, *frame, map.GetBytes()) &&
         WriteAccessUnit(file, map.GetBytes(), frame->setup ? frame->setup->lengthSize : 0);
}

/// Where a decoder may start it must know the parameter sets: once a file, and again when the camera has begun anew.
bool VideoPipelineCollect::WriteSetup(FILE* file, const VideoPipelineCbElement& entry,
                                      std::span<const std::uint8_t> accessUnit) {
  if (!entry.setup || entry.setup == m_writtenSetup || !entry.IsKeyFrame()) return true;
  m_writtenSetup = entry.setup;
  const auto& [sets, lengthSize] = *entry.setup;
  return HasParameterSets(accessUnit, lengthSize) || Kfile::Write(sets.data(), sets.size(), file);
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

void VideoPipelineCollect::Mux(const std::string& audioPath, std::int64_t audioDelayNs, bool keepsStream) {
  if (!m_collected) return;
  std::string mp4Path;
  if (Mux(m_path, audioPath, GetCollectedFps(), mp4Path, audioDelayNs)) return Replace(mp4Path);
  if (!keepsStream) return Lose(false);
  Log::Warning(m_path + " cannot be muxed with the sound of " + audioPath + ": trying without");
  BuildMp4(true);
}

void VideoPipelineCollect::BuildMp4(bool keepsStream) {
  if (!m_collected) return;
  std::string mp4Path;
  if (BuildMp4(m_path, GetCollectedFps(), mp4Path)) return Replace(mp4Path);
  Lose(keepsStream);
}

void VideoPipelineCollect::Replace(const std::string& mp4Path) {
  DeletePath();
  m_path = mp4Path;
  m_collected = true;
}

void VideoPipelineCollect::Lose(bool keepsStream) {
  if (!keepsStream) return DeletePath();
  Log::Error(m_path + " cannot be made an MP4: it is kept as it is");
}

}  // namespace Tavi::Video
