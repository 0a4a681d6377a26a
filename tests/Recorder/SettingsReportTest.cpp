// What a recorder says is wrong with it.
#include "Recorder/Service/SettingsReport.h"

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

namespace {

using namespace Tavi::Recorder;
using Tavi::Pipeline::PipelineType;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const nlohmann::ordered_json FineStorage{
    {"full", false}, {"problem", ""}, {"waiting", 0}, {"failed", 0}, {"unsigned", ""}};

SourceHealth MakeSource(PipelineType type, SourceState state, double rate, const std::string& problem = "") {
  SourceHealth source;
  source.type = type;
  source.state = state;
  source.rate = rate;
  source.configuredRate = 30.0;
  source.problem = problem;
  return source;
}

std::vector<std::string> FindProblems(const Settings& settings, const std::vector<SourceHealth>& sources,
                                      const nlohmann::ordered_json& storage = FineStorage) {
  return DescribeSettings(settings, sources, storage)["problems"];
}

TEST(SettingsReportTest, NamesWhatSomebodyShouldLookAtAndNothingElse) {
  using enum SourceState;
  const auto running = MakeSource(PipelineType::Camera0, Running, 29.9);
  const auto starting = MakeSource(PipelineType::Camera1, Starting, 0.0);
  EXPECT_THAT(FindProblems({}, {running, starting}), IsEmpty());

  auto named = MakeSource(PipelineType::Camera0, Missing, 0.0, "no such device");
  named.name = "front";
  const auto slow = MakeSource(PipelineType::Camera1, Running, 20.0);
  const auto silent = MakeSource(PipelineType::Gps, Silent, 0.0);
  const nlohmann::ordered_json storage{
      {"full", true}, {"problem", "no room"}, {"waiting", 2}, {"failed", 1}, {"unsigned", "no key"}};
  Settings settings;
  settings.pipeline.camera1.streamEnabled = true;
  settings.control.group = "no-such-group";
  EXPECT_THAT(FindProblems(settings, {named, slow, silent}, storage),
              ElementsAre("no event can be saved: no room", "2 events wait on the working disk until there is room",
                          HasSubstr("1 event could not be saved"), "events are not signed: no key",
                          "front (camera0) is missing: no such device",
                          "camera1 delivers 20.0 entries a second instead of 30.0", "gps is silent",
                          HasSubstr("no-such-group"), HasSubstr("pipeline.camera1.streamEnabled")));
}

}  // namespace
