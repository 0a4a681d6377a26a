// How much room an event takes while it is collected.
#include "Tavi/EventCollect/WorkRoom.h"

#include <fmt/format.h>

#include <algorithm>

#include "Ksystem/DiskUtils/DiskBase.h"
#include "Tavi/GstUtil/Log.h"

namespace Tavi::PipelineCollect {
namespace {

/// Bytes a second of 1 kbit/s.
constexpr double BytesPerKilobit = 125.0;
/// A window begins at a key frame, up to a second before what was asked for.
constexpr int KeyFrameSeconds = 1;
/// What an encoder goes beyond its bit rate, and the rest beside cameras and sound: sensors, stills, companions.
constexpr double Overshoot = 1.15;
constexpr double OtherBytesPerSecond = 4'000.0;
constexpr double StillBytes = 100'000.0;
constexpr double PreviewBytes = 1'500'000.0;
constexpr double BytesPerMiB = 1024.0 * 1024.0;

}  // namespace

std::uint64_t EstimateWorkBytes(const Pipeline::PipelineConfig& config, int seconds, bool withPreview) {
  const int length = seconds + KeyFrameSeconds;
  const auto camera = [length](bool isEnabled, const Video::VideoConfig& video) {
    return isEnabled ? video.bitrate * BytesPerKilobit * Overshoot * length : 0.0;
  };
  const double camera0 = camera(config.camera0Enabled, config.camera0);
  const double camera1 = camera(config.camera1Enabled, config.camera1);
  const double sound = config.audioEnabled ? config.audio.bitrate * BytesPerKilobit * length : 0.0;
  const double rest = OtherBytesPerSecond * length + StillBytes + (withPreview ? PreviewBytes : 0.0);
  // The sound is in each MP4 as well.
  return static_cast<std::uint64_t>(camera0 + camera1 + std::max(camera0, camera1) + 2.0 * sound + rest);
}

void LogFreeSpace(const std::string& directory, const std::string& when) {
  Ksystem::DiskUtils::DiskBase disk(directory);
  if (!disk.LoadDiskInfo()) return;
  Log::Info(fmt::format("Free space {}: {:.2f}MB from {}", when, disk.GetFreeMB(), directory));
}

bool HasRoom(const std::string& directory, std::uint64_t neededBytes) {
  Ksystem::DiskUtils::DiskBase disk(directory);
  return disk.LoadDiskInfo() && disk.GetFreeMB() * BytesPerMiB >= static_cast<double>(neededBytes);
}

void CompareRoom(const std::string& directory, std::uint64_t neededBytes) {
  Ksystem::DiskUtils::DiskBase disk(directory);
  if (!disk.LoadDiskInfo()) return;
  const double neededMB = static_cast<double>(neededBytes) / BytesPerMiB;
  if (disk.GetFreeMB() >= neededMB) return;
  Log::Error(fmt::format("{} has {:.1f} MB free, and the event needs some {:.1f} MB: it may not be whole", directory,
                         disk.GetFreeMB(), neededMB));
}

}  // namespace Tavi::PipelineCollect
