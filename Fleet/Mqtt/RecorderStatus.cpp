// What the recorder says of itself.
#include "Fleet/Mqtt/RecorderStatus.h"

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <utility>

#include "Control/ControlClient.h"
#include "Control/Protocol.h"

namespace Tavi::Mqtt {
namespace {

using Json = Kbase::Json::Object;
constexpr std::chrono::seconds Timeout{2};
constexpr const char* TemperatureMetric = "\ntavi_temperature_celsius ";

Json Ask(const std::string& socket, const char* command, std::string& problem) {
  const auto line = Recorder::Exchange(socket, Recorder::BuildLine({{"command", command}}), {Timeout, {}, {}}, problem);
  if (!line) return nullptr;
  Json reply = Kbase::Json::Parse(*line);
  const bool isReply = reply.is_object() && reply.contains("ok") && reply["ok"] == true;
  if (isReply) return reply;
  const bool hasReason = reply.is_object() && reply.contains("error") && reply["error"].is_string();
  problem = hasReason ? reply["error"].get<std::string>() : "what answers at " + socket + " is no recorder";
  return nullptr;
}

/// One sample of Prometheus' text format.
std::optional<double> FindTemperature(const Json& metrics) {
  if (!metrics.is_object() || !metrics.contains("text") || !metrics["text"].is_string()) return std::nullopt;
  const std::string text = "\n" + metrics["text"].get<std::string>();
  const auto at = text.find(TemperatureMetric);
  if (at == std::string::npos) return std::nullopt;
  const double value = std::strtod(text.c_str() + at + std::char_traits<char>::length(TemperatureMetric), nullptr);
  return std::isfinite(value) ? std::optional(value) : std::nullopt;
}

}  // namespace

RecorderStatus AskRecorder(const std::string& controlSocket) {
  std::string problem;
  Json reply = Ask(controlSocket, Recorder::Command::Status, problem);
  std::optional<double> temperature;
  std::string ignored;
  if (!reply.is_null()) temperature = FindTemperature(Ask(controlSocket, Recorder::Command::Metrics, ignored));
  return {std::move(reply), temperature, std::move(problem)};
}

std::string GetEventsDirectory(const RecorderStatus& status) {
  const auto pointer = Json::json_pointer("/storage/eventsDir");
  if (!status.reply.is_object() || !status.reply.contains(pointer)) return {};
  const auto& directory = status.reply[pointer];
  return directory.is_string() ? directory.get<std::string>() : "";
}

}  // namespace Tavi::Mqtt
