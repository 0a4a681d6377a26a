// The settings that a recorder runs with, and what is wrong or unsafe with it.
#include "Recorder/Service/SettingsReport.h"

#include <fmt/format.h>

#include <string>

#include "Kbase/Json/Json.h"

namespace Tavi::Recorder {
namespace {

using Json = nlohmann::ordered_json;

/// By which a source comes close to the loss of a part of an event.
constexpr double LeastRate = 0.95;

void AddStorage(const Json& storage, Json& problems) {
  const auto text = [&storage](const char* name) { return storage.value(name, std::string()); };
  if (storage.value("full", false)) problems.push_back("no event can be saved: " + text("problem"));
  if (const auto waiting = storage.value("waiting", 0); waiting != 0) {
    problems.push_back(
        fmt::format("{} event{} on the working disk until there is room", waiting, waiting == 1 ? " waits" : "s wait"));
  }
  if (const auto failed = storage.value("failed", 0); failed != 0) {
    problems.push_back(fmt::format("{} event{} could not be saved at once since the start; the log says why", failed,
                                   failed == 1 ? "" : "s"));
  }
  if (!text("unsigned").empty()) problems.push_back("events are not signed: " + text("unsigned"));
}

std::string DescribeSource(const SourceHealth& source) {
  const std::string key = GetSourceName(source.type);
  const std::string name = source.name.empty() ? key : fmt::format("{} ({})", source.name, key);
  const std::string reason = source.problem.empty() ? "" : ": " + source.problem;
  if (source.state == SourceState::Missing) return fmt::format("{} is missing{}", name, reason);
  if (source.state == SourceState::Silent) return fmt::format("{} is silent{}", name, reason);
  if (!source.problem.empty()) return fmt::format("{}{}", name, reason);
  if (source.state != SourceState::Running || source.rate == 0.0) return {};
  if (source.rate >= LeastRate * source.configuredRate) return {};
  return fmt::format("{} delivers {:.1f} entries a second instead of {:.1f}", name, source.rate, source.configuredRate);
}

void AddStreams(const Settings& settings, Json& problems) {
  const auto& all = settings.pipeline;
  for (const auto* camera : {&all.camera0, &all.camera1}) {
    const bool isFirst = camera == &all.camera0;
    if (!camera->streamEnabled || !(isFirst ? all.camera0Enabled : all.camera1Enabled)) continue;
    problems.push_back(
        fmt::format("pipeline.camera{}.streamEnabled: whoever reaches port {} sees this camera, without a password",
                    isFirst ? 0 : 1, camera->streamPort));
  }
}

}  // namespace

Json DescribeSettings(const Settings& settings, const std::vector<SourceHealth>& sources, const Json& storage) {
  Json problems = Json::array();
  AddStorage(storage, problems);
  for (const auto& source : sources) {
    if (auto problem = DescribeSource(source); !problem.empty()) problems.push_back(std::move(problem));
  }
  if (auto problem = CheckGroups(settings); !problem.empty()) problems.push_back(std::move(problem));
  AddStreams(settings, problems);
  if (settings.simulate) problems.push_back("simulate: the car is a simulated one; no device is read");
  return {{"settings", Kbase::Json::Parse(FormatSettings(settings))}, {"problems", std::move(problems)}};
}

}  // namespace Tavi::Recorder
