// What the recorder says about one event.
#include "Recorder/EventReport.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <ctime>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "Recorder/MediaDuration.h"

namespace Tavi::Recorder {

using PipelineCollect::PipelineCollectType;

namespace {

std::string FormatDuration(PipelineCollectType type, const std::string& path) {
  const bool isMedia = type == PipelineCollectType::VideoCamera1 || type == PipelineCollectType::VideoCamera0 ||
                       type == PipelineCollectType::Audio || type == PipelineCollectType::Preview;
  if (!isMedia) return "-";
  const auto seconds = ReadMediaDuration(path);
  return seconds ? fmt::format("{:.2f} s", *seconds) : "-";
}

std::string FormatSize(const std::string& path) {
  std::error_code error;
  const auto bytes = std::filesystem::file_size(path, error);
  return error ? "gone" : fmt::format("{:.1f} kB", static_cast<double>(bytes) / 1000.0);
}

}  // namespace

std::string FormatJson(const EventReport& report) {
  nlohmann::ordered_json json;
  json["event"] = report.number;
  json["time"] = report.output.eventTime;
  json["collectSeconds"] = report.collectSeconds;
  json["maxSpeed"] = report.output.maxSpeed;
  json["maxG"] = report.output.maxG;
  json["files"] = nlohmann::ordered_json::object();
  for (const auto& [type, path] : report.output.outputs) {
    json["files"][PipelineCollect::GetPipelineCollectTypeName(type)] = path;
  }
  return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string FormatTable(const EventReport& report) {
  std::tm local{};
  const auto time = static_cast<std::time_t>(report.output.eventTime);
  localtime_r(&time, &local);
  std::string table = fmt::format("Event {} of {:%Y-%m-%d %H:%M:%S}, collected in {:.2f} s\n", report.number, local,
                                  report.collectSeconds);
  if (report.output.outputs.empty())
    table += "  there are no files: no source has delivered, or nothing could be written\n";
  for (const auto& [type, path] : report.output.outputs) {
    table += fmt::format("  {:<17} {:>9} {:>12}  {}\n", PipelineCollect::GetPipelineCollectTypeName(type),
                         FormatDuration(type, path), FormatSize(path), path);
  }
  if (report.output.maxSpeed >= 0.0) table += fmt::format("  highest speed {:.1f} knots\n", report.output.maxSpeed);
  if (report.output.maxG > 0.0) table += fmt::format("  highest acceleration {:.2f} g\n", report.output.maxG);
  return table;
}

}  // namespace Tavi::Recorder
