// An event tells what of it is not as it was asked for, and keeps quiet about what nobody misses.
#include "Recorder/Service/MissingParts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Tavi::Recorder {
namespace {

using PipelineCollect::CollectedWindow;
using PipelineCollect::PipelineCollectOutput;
using PipelineCollect::PipelineCollectType;

constexpr float Fps = 15.0F;

/// A camera's window without a gap.
CollectedWindow MakeWindow(double from, double to, double share = 1.0) {
  CollectedWindow window;
  window.fromSeconds = from;
  window.toSeconds = to;
  window.fps = Fps;
  window.entries = static_cast<std::uint64_t>((to - from) * share * static_cast<double>(Fps)) + 1;
  return window;
}

TEST(MissingPartsTest, WhatDiffersFromWhatWasAskedForIsSaid) {
  CollectedWindow gap = MakeWindow(-10.0, 10.0, 0.8);
  gap.longestGapSeconds = 4.0;
  gap.longestGapFromSeconds = 2.0;
  const struct {
    CollectedWindow window;
    const char* file;
    std::vector<double> seconds;
    const char* sentence;
  } cases[]{
      {MakeWindow(-10.4, 10.2), "a.mp4", {}, ""},
      {MakeWindow(-9.0, 9.0), "a.mp4", {}, ""},
      {MakeWindow(-7.5, 10.0), "a.mp4", {2.5}, "rear: begins 2.5 s late: nothing older was in memory"},
      {MakeWindow(-10.0, 8.0), "a.mp4", {2.0}, "rear: ends 2.0 s early"},
      {MakeWindow(-10.0, 10.0, 0.96), "a.mp4", {}, ""},
      {MakeWindow(-10.0, 10.0, 0.5), "a.mp4", {10.0}, "rear: 7.5 of 15 entries a second came"},
      {gap, "a.mp4", {4.0}, "rear: nothing came for 4.0 s from +2.0 s on"},
      {MakeWindow(-10.0, 10.0), "a.h264", {0.0}, "rear: no clip could be made of its stream, which is kept as it is"},
      {MakeWindow(-10.0, 10.0), nullptr, {20.0}, "rear: its file could not be made"},
  };
  EventOrder order;
  order.beforeSeconds = 10;
  order.durationSeconds = 20;
  order.withPreview = false;
  for (const auto& [window, file, seconds, sentence] : cases) {
    PipelineCollectOutput output;
    output.windows[PipelineCollectType::VideoCamera0] = window;
    if (file != nullptr) output.AddOutput(PipelineCollectType::VideoCamera0, file);
    const auto missing = FindMissing(order, {PipelineCollectType::VideoCamera0}, output);
    ASSERT_EQ(missing.size(), seconds.size()) << sentence;
    for (std::size_t i = 0; i < missing.size(); ++i) EXPECT_NEAR(missing[i].seconds, seconds[i], 0.1) << sentence;
    const std::string expected = *sentence == 0 ? "" : std::string("not all that was asked for is there: ") + sentence;
    EXPECT_EQ(DescribeMissing(missing, {"front", "rear"}), expected);
  }
}

TEST(MissingPartsTest, WhatIsNotThereAtAllIsSaid) {
  EventOrder order;
  order.durationSeconds = 20;
  order.withPreview = true;
  const auto missing = FindMissing(order, {PipelineCollectType::Audio, PipelineCollectType::ThumbnailCamera0}, {});
  ASSERT_EQ(missing.size(), 3U);
  EXPECT_EQ(missing[0].reason, "its source delivered nothing");
  EXPECT_EQ(missing[0].seconds, 20.0);
  EXPECT_EQ(missing[1].reason, "it could not be made");
  EXPECT_EQ(missing[2].type, "Preview");
  EXPECT_THAT(DescribeMissing(missing),
              testing::HasSubstr("; still of camera1: it could not be made; preview: the second"));
}

}  // namespace
}  // namespace Tavi::Recorder
