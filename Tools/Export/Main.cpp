// tavi-export: an event in formats that other programs read.
#include <exception>
#include <iostream>
#include <string>

#include "Tools/Export/Formats.h"
#include "Tools/Tool.h"

namespace {

using namespace Tavi::EventTools;

struct ExportOptions {
  ToolOptions tool;
  bool gpx = false;
  bool csv = false;
  bool geoJson = false;
  bool mcap = false;
  bool subtitles = false;
  /// By its number in the settings, the camera whose clip the subtitles are for; -1 for the first that there is.
  int camera = -1;
};

ToolUsage BuildUsage(ExportOptions& options) {
  return {"tavi-export",
          "Writes an event in formats that other programs read.",
          {{"--gpx", &options.gpx, "The track as GPX 1.1"},
           {"--csv", &options.csv, "Position, acceleration and machine state as one table"},
           {"--geojson", &options.geoJson, "The track as GeoJSON"},
           {"--mcap", &options.mcap, "Everything along one time line as MCAP: video, stills, position, sensors, notes"},
           {"--subtitles", &options.subtitles,
            "Speed and position as WebVTT subtitles; as SRT when the output's name ends in .srt"}},
          {{"--camera",
            &options.camera,
            {0, 1},
            "Camera whose clip the subtitles are for, by its number in the settings (0 unless there is none of it)"}}};
}

std::string Check(const ExportOptions& options) {
  const int formats =
      int{options.gpx} + int{options.csv} + int{options.geoJson} + int{options.mcap} + int{options.subtitles};
  if (formats != 1) return "give one of --gpx, --csv, --geojson, --mcap and --subtitles";
  if (options.camera >= 0 && !options.subtitles) return "--camera: it goes with --subtitles only";
  return {};
}

const char* GetSuffix(const ExportOptions& options) {
  if (options.gpx) return ".gpx";
  if (options.csv) return ".csv";
  if (options.mcap) return ".mcap";
  return options.geoJson ? ".geojson" : ".vtt";
}

std::string Render(EventData& data, const ExportOptions& options) {
  if (options.gpx) return FormatGpx(data);
  if (options.csv) return FormatCsv(data);
  if (options.mcap) return FormatMcap(data);
  if (options.geoJson) return FormatGeoJson(data);
  const auto form = options.tool.output.ends_with(".srt") ? SubtitleForm::Srt : SubtitleForm::WebVtt;
  return FormatClipSubtitles(data, options.camera, form);
}

}  // namespace

int main(int argc, char** argv) try {
  ExportOptions options;
  const auto status = ParseToolOptions(BuildUsage(options), argc, argv, options.tool, [&] { return Check(options); });
  if (status) return *status;
  options.tool.suffix = GetSuffix(options);
  return RunTool(options.tool, [&](EventData& data) { return Render(data, options); });
} catch (const std::exception& error) {
  std::cerr << "tavi-export: " << error.what() << "\n";
  return FailureStatus;
}
