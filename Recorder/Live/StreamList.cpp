// Which sources there are to watch live, and what they are.
#include "Recorder/Live/StreamList.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <nlohmann/json.hpp>

#include "Control/LiveProtocol.h"
#include "Tavi/PipelineCollect/PipelineCollectTypes.h"

namespace Tavi::Recorder::Live {
namespace {

using Pipeline::PipelineConfig;
using Pipeline::PipelineType;
using PipelineCollect::PipelineCollectType;
using Json = nlohmann::ordered_json;

struct Source {
  PipelineType type;
  /// The numbers of cameras cross over.
  PipelineCollectType eventType;
  const char* codec;
  bool PipelineConfig::*enabled;
  double (*getRate)(const PipelineConfig&);
};

/// In the order of LiveStreamNames.
constexpr std::array<Source, LiveStreamNames.size()> Sources{{
    {PipelineType::Camera0, PipelineCollectType::VideoCamera1, "h264", &PipelineConfig::camera0Enabled,
     [](const PipelineConfig& config) { return static_cast<double>(config.camera0.fps); }},
    {PipelineType::Camera1, PipelineCollectType::VideoCamera0, "h264", &PipelineConfig::camera1Enabled,
     [](const PipelineConfig& config) { return static_cast<double>(config.camera1.fps); }},
    {PipelineType::Audio, PipelineCollectType::Audio, "mp3", &PipelineConfig::audioEnabled,
     [](const PipelineConfig& config) { return static_cast<double>(config.audio.frameRate); }},
    {PipelineType::Gps, PipelineCollectType::Gps, "json", &PipelineConfig::gpsEnabled,
     [](const PipelineConfig& config) { return static_cast<double>(config.gps.rate); }},
    {PipelineType::Acc, PipelineCollectType::Acc, "json", &PipelineConfig::accEnabled,
     [](const PipelineConfig& config) { return static_cast<double>(config.acc.rate); }},
    {PipelineType::Other, PipelineCollectType::Other, "json", &PipelineConfig::otherEnabled,
     [](const PipelineConfig& config) { return static_cast<double>(config.other.rate); }},
}};

Json DescribeStream(const Settings& settings, std::size_t index) {
  const Source& source = Sources.at(index);
  const auto& config = settings.pipeline;
  Json stream{{"stream", LiveStreamNames.at(index)}};
  const bool isCamera = index < settings.cameraNames.size();
  if (isCamera && !settings.cameraNames.at(index).empty()) stream["name"] = settings.cameraNames.at(index);
  stream["type"] = GetPipelineCollectTypeName(source.eventType);
  stream["codec"] = source.codec;
  stream["fps"] = std::round(source.getRate(config) * 100.0) / 100.0;
  if (source.type == PipelineType::Camera0) stream["bitrateKbps"] = config.camera0.bitrate;
  if (source.type == PipelineType::Camera1) stream["bitrateKbps"] = config.camera1.bitrate;
  if (source.type == PipelineType::Audio) stream["bitrateKbps"] = config.audio.bitrate;
  return stream;
}

}  // namespace

std::optional<std::vector<PipelineType>> ChooseStreams(const PipelineConfig& config,
                                                       const std::vector<std::string>& names, std::string& problem) {
  std::vector<PipelineType> chosen;
  for (std::size_t i = 0; i < Sources.size(); ++i) {
    if (names.empty() && config.*Sources.at(i).enabled) chosen.push_back(Sources.at(i).type);
  }
  for (const auto& name : names) {
    const auto found = std::find(LiveStreamNames.begin(), LiveStreamNames.end(), name);
    const Source& source = Sources.at(static_cast<std::size_t>(found - LiveStreamNames.begin()));
    if (!(config.*source.enabled)) {
      problem = fmt::format("streams: {} is not enabled in the settings", name);
      return std::nullopt;
    }
    chosen.push_back(source.type);
  }
  if (!chosen.empty()) return chosen;
  problem = "streams: no source is enabled in the settings";
  return std::nullopt;
}

Json DescribeStreams(const Settings& settings, const std::vector<PipelineType>& streams) {
  Json list = Json::array();
  for (const PipelineType type : streams) {
    const auto found = std::find_if(Sources.begin(), Sources.end(), [type](const Source& s) { return s.type == type; });
    list.push_back(DescribeStream(settings, static_cast<std::size_t>(found - Sources.begin())));
  }
  return list;
}

}  // namespace Tavi::Recorder::Live
