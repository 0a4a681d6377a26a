// What the recorder says about one event.
#include "Recorder/EventReport.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <ctime>
#include <filesystem>

#include "Kbase/Json/Json.h"
#include "Recorder/MediaLength.h"

namespace Tavi::Recorder {

using PipelineCollect::PipelineCollectOutput;
using PipelineCollect::PipelineCollectType;

namespace {

std::string FormatDuration(PipelineCollectType type, const std::string& path) {
  const bool isMedia = type == PipelineCollectType::VideoCamera1 || type == PipelineCollectType::VideoCamera0 ||
                       type == PipelineCollectType::Audio || type == PipelineCollectType::Preview;
  if (!isMedia) return "-";
  const auto length = ReadMediaLength(path);
  return length ? fmt::format("{:.2f} s", length->seconds) : "-";
}

std::string FormatSize(const std::string& path) {
  std::error_code error;
  const auto bytes = std::filesystem::file_size(path, error);
  return error ? "gone" : fmt::format("{:.1f} kB", static_cast<double>(bytes) / 1000.0);
}

nlohmann::ordered_json ListFiles(const PipelineCollectOutput& output) {
  auto files = nlohmann::ordered_json::object();
  for (const auto& [type, path] : output.outputs) files[PipelineCollect::GetPipelineCollectTypeName(type)] = path;
  return files;
}

std::string FormatLine(const char* what, const std::string& duration, const std::string& path) {
  return fmt::format("  {:<17} {:>9} {:>12}  {}\n", what, duration, FormatSize(path), path);
}

std::string FormatFiles(const PipelineCollectOutput& output) {
  std::string lines;
  for (const auto& [type, path] : output.outputs) {
    lines += FormatLine(PipelineCollect::GetPipelineCollectTypeName(type), FormatDuration(type, path), path);
  }
  if (!output.previewStill.empty()) lines += FormatLine("PreviewStill", "-", output.previewStill);
  return lines;
}

std::tm ToLocalTime(std::int64_t eventTime) {
  std::tm local{};
  const auto time = static_cast<std::time_t>(eventTime);
  localtime_r(&time, &local);
  return local;
}

}  // namespace

std::string FormatJson(const EventReport& report) {
  nlohmann::ordered_json json;
  json["event"] = report.number;
  json["manager"] = report.second ? "second" : "first";
  json["time"] = report.output.eventTime;
  json["collectSeconds"] = report.collectSeconds;
  json["powerFailed"] = report.powerFailed;
  json["maxSpeed"] = report.output.maxSpeed;
  json["maxG"] = report.output.maxG;
  json["previewStill"] = nullptr;
  if (!report.output.previewStill.empty()) json["previewStill"] = report.output.previewStill;
  json["files"] = ListFiles(report.output);
  return Kbase::Json::Print(json);
}

std::string FormatJson(const RecoveryCollect::RecoveredEvent& event) {
  nlohmann::ordered_json json;
  json["recovered"] = event.name;
  json["time"] = event.output.eventTime;
  json["seconds"] = event.seconds;
  json["files"] = ListFiles(event.output);
  return Kbase::Json::Print(json);
}

std::string FormatTable(const EventReport& report) {
  std::string table = fmt::format("Event {}{} of {:%Y-%m-%d %H:%M:%S}, collected in {:.2f} s\n", report.number,
                                  report.second ? " (second manager)" : "", ToLocalTime(report.output.eventTime),
                                  report.collectSeconds);
  if (report.output.outputs.empty() && report.powerFailed) {
    table += "  power has failed: what there was is saved and will be finished at the next start\n";
  } else if (report.output.outputs.empty()) {
    table += "  there are no files: no source has delivered, or nothing could be written\n";
  }
  table += FormatFiles(report.output);
  if (report.output.maxSpeed >= 0.0) table += fmt::format("  highest speed {:.1f} knots\n", report.output.maxSpeed);
  if (report.output.maxG > 0.0) table += fmt::format("  highest acceleration {:.2f} g\n", report.output.maxG);
  return table;
}

std::string FormatTable(const RecoveryCollect::RecoveredEvent& event) {
  return fmt::format("Recovered event {}, saved {:%Y-%m-%d %H:%M:%S}, {} s\n", event.name,
                     ToLocalTime(event.output.eventTime), event.seconds) +
         FormatFiles(event.output);
}

}  // namespace Tavi::Recorder
