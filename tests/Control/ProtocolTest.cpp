// What requests may say: every mistake is one line with field, value and what would be right.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Control/Protocol.h"

#include <nlohmann/json.hpp>

namespace {

using namespace Tavi::Recorder;
using Json = nlohmann::ordered_json;

/// The problem with a request; empty when there is none.
std::string Check(const std::string& text) {
  std::string problem;
  const auto request = ParseRequest(text, problem);
  if (!request) return problem;
  if ((*request)["command"] == Command::Stop) CheckPlainRequest(*request, problem);
  if ((*request)["command"] == Command::Event) ParseEventRequest(*request, problem);
  if ((*request)["command"] == Command::Ignition) ParseIgnitionRequest(*request, problem);
  if ((*request)["command"] == Command::Protect) ParseProtectRequest(*request, problem);
  if ((*request)["command"] == Command::Label) ParseLabelRequest(*request, problem);
  if ((*request)["command"] == Command::Live) ParseLiveRequest(*request, problem);
  return problem;
}

TEST(Protocol, AMistakeIsOneLineThatSaysWhatWouldBeRight) {
  const std::string nest(30'000, '[');
  const std::pair<std::string, std::string> cases[] = {
      {R"({"command":"event","beforeSeconds":32})", "beforeSeconds: 32 is no whole number from 0 to 31"},
      {R"({"command":"event","durationSeconds":18446744073709551615})", "no whole number from 0 to 110"},
      {R"({"command":"event","durationSeconds":30.0})", "durationSeconds: 30.0 is no whole number"},
      {R"({"command":"event","wait":"yes"})", R"(wait: "yes" is neither true nor false)"},
      {R"({"command":"event","durationSecond":5})", R"("durationSecond": 5: there is no such field; there are before)"},
      {R"({"command":"event","label":"a\u001b[2J"})", R"(label: "a\u001b[2J": it has control characters)"},
      {R"({"command":"event","label":"a\u009b2J"})", "it has control characters"},
      {R"({"command":"event","label":")" + std::string(201, 'x') + R"("})", "it has 201 characters; give at most 200"},
      {R"({"command":"status","command":"stop"})", "command: it is there twice; once is right"},
      {R"({"command":"stop","evnt":"9f3ca1b2"})",
       R"("evnt": "9f3ca1b2": there is no such field; there are command, id)"},
      {R"({"command":"ignition"})", "on: it is missing; give true or false"},
      {R"({"command":"protect","event":"../../et"})", R"(event: "../../et" is no event's id)"},
      {R"({"command":"label","event":"9f3ca1b2"})", "label: it is missing; give a text, empty for none"},
      {R"({"command":"label","event":"9f3ca1b2","label":"a\n"})", R"(label: "a\n": it has control characters)"},
      {R"({"command":"live","streams":["gps","preview0"]})", R"(streams: "preview0" is no stream; there are camera0,)"},
      {R"({"command":"live","streams":["gps","gps"]})", R"(streams: "gps" is there twice; once is right)"},
      {R"({"command":"live","streams":"gps"})", R"(streams: "gps" is no list of streams; give some of camera0, )"},
      {R"({"command":"live","streams":[]})", "streams: an empty list is no list of streams"},
      {R"({"command":"live","streams":[{}]})", "streams: an object is no stream"},
      {R"({"command":"status","id":)" + nest + std::string(nest.size(), ']') + "}", "the line is no request"},
      {R"({"command":"status","id":[1]})", "id: an array is neither text nor a whole number"},
      {"", "the line is no request"},
  };
  for (const auto& [request, expected] : cases) {
    const std::string problem = Check(request);
    EXPECT_THAT(problem, testing::HasSubstr(expected)) << request;
    EXPECT_EQ(problem.find('\n'), std::string::npos) << problem;
  }
  std::string twoBytesEach;
  for (int i = 0; i < 200; ++i) twoBytesEach += "ü";
  EXPECT_EQ(CheckLabel(twoBytesEach), "") << "characters, not bytes";
  EXPECT_EQ(CheckLabel("\xC3("), "it is no UTF-8");
}

TEST(Protocol, WhatTheClientBuildsIsWhatTheServerReads) {
  std::string problem;
  const Json built = BuildRequest(EventRequest{31, 110, true, "door", true});
  const auto event = ParseEventRequest(built, problem);
  ASSERT_TRUE(event) << problem;
  EXPECT_EQ(Json(BuildRequest(*event)), built);
  EXPECT_EQ(Check(BuildRequest(ProtectRequest{"9f3ca1b2", false}).dump()), "");
  EXPECT_EQ(Check(BuildRequest(IgnitionRequest{true}).dump()), "");
  EXPECT_EQ(Check(BuildRequest(LabelRequest{"9f3ca1b2", ""}).dump()), "");
  EXPECT_EQ(Check(BuildRequest(LiveRequest{}).dump()), "");
  const auto live = ParseLiveRequest(BuildRequest(LiveRequest{{"gps", "camera0"}}), problem);
  EXPECT_EQ(live ? live->streams : std::vector<std::string>(), (std::vector<std::string>{"gps", "camera0"}));
}

}  // namespace
