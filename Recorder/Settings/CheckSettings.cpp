// How the settings fit together.
#include <fmt/format.h>

#include <array>
#include <cmath>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <tuple>
#include <utility>

#include "Ksystem/SysUtil/Group.h"
#include "Recorder/Settings/Fields.h"
#include "Recorder/Settings/Limits.h"
#include "Recorder/Settings/Settings.h"
#include "SettingsFile/SettingsFile.h"

namespace Tavi::Recorder {
namespace {

using Video::VideoConfig;

std::string CheckEach(const Settings& settings) {
  Settings copy = settings;
  return SettingsFile::CheckFields(DescribeFields(copy));
}

std::string CheckSources(const Settings& settings) {
  const auto& all = settings.pipeline;
  if (all.camera0Enabled || all.camera1Enabled || all.audioEnabled || all.gpsEnabled || all.accEnabled ||
      all.otherEnabled) {
    return {};
  }
  return "field pipeline: no source is enabled, so there is nothing to record; at least one is right";
}

/// Windows are counted by the frame rate.
std::string CheckSound(const Settings& settings) {
  constexpr double SamplesOfFrame = 1152.0;
  constexpr double Rounding = 0.05;
  const auto& audio = settings.pipeline.audio;
  const double right = audio.rate / SamplesOfFrame;
  if (!settings.pipeline.audioEnabled || audio.rate == 0 || std::fabs(audio.frameRate - right) <= Rounding) return {};
  return fmt::format(
      "field pipeline.audio.frameRate: {} are not the frames of the {} Hz of pipeline.audio.rate, {:.2f} is "
      "right",
      audio.frameRate, audio.rate, right);
}

std::string CheckPreview(const std::string& name, const VideoConfig& camera) {
  if (camera.previewWidth != Limits::PreviewWidth || camera.previewHeight != Limits::PreviewHeight) {
    return fmt::format("field {0}.previewWidth: {1}x{2} with {0}.previewHeight, but previews are composed of {3}x{4}",
                       name, camera.previewWidth, camera.previewHeight, Limits::PreviewWidth, Limits::PreviewHeight);
  }
  if (camera.previewFps <= camera.fps) return {};
  return fmt::format("field {0}.previewFps: {1} is more than the {2} of {0}.fps", name, camera.previewFps, camera.fps);
}

std::string CheckCamera(const std::string& name, bool enabled, const VideoConfig& camera) {
  if (!enabled) return {};
  if (camera.cropEnabled && (camera.width != Limits::CroppedWidth || camera.height != Limits::CroppedHeight)) {
    return fmt::format("field {0}.cropEnabled: pictures are {1}x{2} after it, {0}.width and {0}.height are {3}x{4}",
                       name, Limits::CroppedWidth, Limits::CroppedHeight, camera.width, camera.height);
  }
  return camera.previewEnabled ? CheckPreview(name, camera) : "";
}

/// What two cameras cannot share, and the clip in which both are seen side by side.
std::string CheckBothCameras(const Settings& settings) {
  const auto& [first, second] = std::tie(settings.pipeline.camera0, settings.pipeline.camera1);
  if (!settings.pipeline.camera0Enabled || !settings.pipeline.camera1Enabled) return {};
  const auto path = [](const VideoConfig& camera) { return std::filesystem::path(camera.device).lexically_normal(); };
  if (!settings.simulate && path(first) == path(second)) {
    return fmt::format(
        "field pipeline.camera1.device: {} is pipeline.camera0.device, too; each camera needs its own device",
        SettingsFile::Show(second.device));
  }
  if (first.streamEnabled && second.streamEnabled && first.streamPort == second.streamPort) {
    return fmt::format(
        "field pipeline.camera1.streamPort: {} is pipeline.camera0.streamPort, too; each stream needs its own port",
        second.streamPort);
  }
  if (!settings.cameraNames[1].empty() && settings.cameraNames[0] == settings.cameraNames[1]) {
    return fmt::format("field pipeline.camera1.name: {} is pipeline.camera0.name, too; nobody could tell them apart",
                       SettingsFile::Show(settings.cameraNames[1]));
  }
  if (!first.previewEnabled || !second.previewEnabled) return {};
  for (const auto& [name, member] :
       {std::pair("previewFps", &VideoConfig::previewFps), std::pair("previewSeconds", &VideoConfig::previewSeconds)}) {
    if (first.*member == second.*member) continue;
    return fmt::format("field pipeline.camera1.{0}: {1} is not the {2} of pipeline.camera0.{0}; one clip shows both",
                       name, second.*member, first.*member);
  }
  return {};
}

std::string CheckCameras(const Settings& settings) {
  const auto& pipeline = settings.pipeline;
  std::string problem = CheckCamera("pipeline.camera0", pipeline.camera0Enabled, pipeline.camera0);
  if (problem.empty()) problem = CheckCamera("pipeline.camera1", pipeline.camera1Enabled, pipeline.camera1);
  return problem.empty() ? CheckBothCameras(settings) : problem;
}

/// Files that are moved into the directory that they come from would be lost.
std::string CheckDirectories(const Settings& settings) {
  const auto& storage = settings.storage;
  const std::array<std::pair<const char*, std::filesystem::path>, 4> all{{{"eventsDir", storage.eventsDir},
                                                                          {"workDir", storage.workDir},
                                                                          {"backupDir", storage.backupDir},
                                                                          {"restoreDir", storage.restoreDir}}};
  const auto normal = [](const std::filesystem::path& path) { return (path / "").lexically_normal(); };
  for (std::size_t later = 1; later < all.size(); ++later) {
    for (std::size_t i = 0; i < later; ++i) {
      if (normal(all[i].second) != normal(all[later].second)) continue;
      return fmt::format("field storage.{}: {} is storage.{}, too; each needs its own directory", all[later].first,
                         SettingsFile::Show(all[later].second.string()), all[i].first);
    }
  }
  return {};
}

std::string CheckTriggers(const Settings& settings) {
  const auto& [acceleration, lowSpeed] = settings.triggers;
  if (acceleration.enabled && !settings.pipeline.accEnabled) {
    return "field triggers.acceleration.enabled: true needs the accelerometer, pipeline.accEnabled is false";
  }
  if (acceleration.enabled && acceleration.thresholdG > settings.pipeline.acc.scale) {
    return fmt::format("field triggers.acceleration.thresholdG: {} is more than the {} of pipeline.acc.scale",
                       acceleration.thresholdG, settings.pipeline.acc.scale);
  }
  if (acceleration.enabled && lowSpeed.enabled && !settings.pipeline.gpsEnabled) {
    return "field triggers.lowSpeed.enabled: true needs the receiver's speed, pipeline.gpsEnabled is false";
  }
  return {};
}

}  // namespace

std::string CheckSettings(const Settings& settings) {
  for (const auto check : {CheckEach, CheckSources, CheckCameras, CheckSound, CheckDirectories, CheckTriggers}) {
    std::string problem = check(settings);
    if (!problem.empty()) return problem;
  }
  return {};
}

std::string CheckGroups(const Settings& settings) {
  for (const auto& [field, name] : {std::pair("storage.viewersGroup", &settings.storage.viewersGroup),
                                    std::pair("control.group", &settings.control.group)}) {
    if (name->empty() || Ksystem::SysUtil::FindGroup(*name)) continue;
    return fmt::format("field {}: {} is no group of this machine, one of those of `getent group` is right", field,
                       SettingsFile::Show(*name));
  }
  return {};
}

}  // namespace Tavi::Recorder
