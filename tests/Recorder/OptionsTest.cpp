// The command line: every mistake is one line that names the option, the value and what would be right.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <sstream>

#include "Recorder/Options.h"

namespace {

using namespace Tavi::Recorder;
using testing::HasSubstr;

struct Parsed {
  std::optional<int> status;
  Options options;
  std::string out;
  std::string err;
};

Parsed Parse(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "tavi-recorder");
  Parsed parsed;
  std::ostringstream out;
  std::ostringstream err;
  parsed.status = ParseOptions(static_cast<int>(arguments.size()), arguments.data(), parsed.options, out, err);
  parsed.out = out.str();
  parsed.err = err.str();
  return parsed;
}

Parsed ParseLine(const std::string& line) {
  std::istringstream words(line);
  const std::vector<std::string> list{std::istream_iterator<std::string>(words), {}};
  std::vector<const char*> arguments;
  arguments.reserve(list.size());
  for (const auto& word : list) arguments.push_back(word.c_str());
  return Parse(arguments);
}

TEST(Options, ReadsAWholeCommandAndTheLastOfARepeatedOptionWins) {
  const Parsed parsed = ParseLine(
      "--simulate --collect-after 2.5 --start -10 --duration 15 --output /tmp/a --count 3 --json --fps0 10 --fps1 25 "
      "--bitrate1 4000 --no-preview0 --crop1 --duration 20");
  ASSERT_EQ(parsed.status, std::nullopt) << parsed.err;
  EXPECT_TRUE(parsed.options.simulate);
  EXPECT_EQ(parsed.options.startSeconds, -10);
  EXPECT_EQ(parsed.options.durationSeconds, 20);
  EXPECT_EQ(parsed.options.pipeline.camera1.fps, 25);
  EXPECT_FALSE(parsed.options.pipeline.camera0.previewEnabled);
}

TEST(Options, AMistakeIsOneLineThatSaysWhatWouldBeRight) {
  const struct {
    std::vector<const char*> arguments;
    std::vector<std::string> expected;
  } cases[] = {
      {{}, {"--output"}},
      {{"--output", "x", "--fps0", "0"}, {"--fps0", "\"0\"", "1 to 60"}},
      {{"--output", "x", "--fps1", "thirty"}, {"--fps1", "\"thirty\"", "1 to 60"}},
      {{"--output", "x", "--start", "5"}, {"--start", "\"5\"", "-31 to 0"}},
      {{"--output", "x", "--duration", "-1"}, {"--duration", "\"-1\"", "0 to 110"}},
      {{"--output", "x", "--collect-after", "nan"}, {"--collect-after", "\"nan\"", "seconds"}},
      {{"--output", "x", "--bogus"}, {"--bogus"}},
      {{"--output", "x", "--device0", "/dev/video7", "--device1", "/dev/video7"},
       {"--device0", "--device1", "/dev/video7"}},
      {{"--output", "x", "--stream0", "--stream1", "--port0", "9", "--port1", "9"}, {"--port0", "--port1", "9"}},
      {{"--output", "x", "--no-camera0", "--no-camera1", "--no-audio", "--no-gps", "--no-acc", "--no-metrics"},
       {"--no-camera0", "nothing is left"}},
      {{"--output", "x", "--gps-baud", "9601"}, {"--gps-baud", "9601", "4800,9600"}},
      {{"--output", "x", "--audio-bitrate", "65"}, {"--audio-bitrate", "65", "64,80"}},
      {{"--output", "x", "--gain", "-2"}, {"--gain", "\"-2\"", "-1 to "}},
  };
  for (const auto& c : cases) {
    const Parsed parsed = Parse(c.arguments);
    EXPECT_EQ(parsed.status, 2) << parsed.err;
    EXPECT_EQ(std::count(parsed.err.begin(), parsed.err.end(), '\n'), 1) << parsed.err;
    for (const auto& text : c.expected) EXPECT_THAT(parsed.err, HasSubstr(text));
    EXPECT_EQ(parsed.out, "");
  }
  EXPECT_EQ(Parse({"--help"}).status, 0) << "no mistake";
}

}  // namespace
