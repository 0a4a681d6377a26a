// The source on a capture device: what the device offers becomes what the unit expects.
#include <gmock/gmock.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "Simulator/FakeCamera.h"
#include "SoftImx/GstRun.h"

namespace SoftImx::Test {
namespace {

using Tavi::Simulator::FakeCamera;

// Catches a source that delivers the device's format, size or rate instead of the unit's, distorts the picture, keeps
// the device busy after a stop, ignores the number of buffers, fills a standstill with copies, or is silent about a
// camera that is pulled out.
TEST(Device, BecomesTheUnitsFormatUntilItIsPulledOut) {
  if (!FakeCamera::IsPossible()) GTEST_SKIP() << "libumockdev-preload.so.0 is missing";
  FakeCamera camera;
  ASSERT_EQ(camera.PlugIn(), "");
  std::vector<GstClockTime> stamps;
  Picture picture;
  GstRun run("imxv4l2videosrc name=src device=/dev/video9 fps-n=30 queue-size=12 ! fakesink sync=false");
  run.OnBuffer("src", [&](GstPad* pad, GstBuffer* buffer) {
    stamps.push_back(GST_BUFFER_PTS(buffer));
    picture = MapPicture(pad, buffer);
  });
  for (int round = 0; round < 2; ++round) {
    run.Stop();
    stamps.clear();
    ASSERT_TRUE(run.PlayUntil([&] { return stamps.size() >= 31; })) << run.Error();
  }
  camera.Stall(1500);
  const std::size_t before = stamps.size();
  ASSERT_TRUE(run.PlayUntil([&] { return stamps.size() >= before + 45; })) << run.Error();
  GstClockTime gap = 0;
  for (std::size_t i = 1; i < stamps.size(); ++i) gap = std::max(gap, stamps[i] - stamps[i - 1]);
  EXPECT_GE(gap, 1.4 * GST_SECOND) << "no copies of the last frame";
  EXPECT_LE(gap, 3 * GST_SECOND);
  camera.Unplug();
  EXPECT_THAT(run.Error(), testing::HasSubstr(FakeCamera::Device));
  run.Stop();
  EXPECT_GE(stamps.front(), GST_MSECOND * FakeCamera::WarmUpMs) << "frames from before the camera's first";
  EXPECT_LT(stamps.front(), 5 * GST_SECOND) << "time did not start again";
  EXPECT_NEAR(static_cast<double>(stamps[30] - stamps[0]), static_cast<double>(GST_SECOND), 40.0);
  EXPECT_GE(camera.BufferCount(), 12U);
  ASSERT_EQ(GST_VIDEO_FRAME_FORMAT(picture), GST_VIDEO_FORMAT_I420);
  ASSERT_EQ(std::pair(picture->info.width, picture->info.height), std::pair(1280, 720));
  // 4:3 in 16:9: black, 160 pixels of it on either side.
  EXPECT_NEAR(At(picture, 0, 80, 360), 16, 2);
  EXPECT_NEAR(At(picture, 0, 400, 10), FakeCamera::DarkLuma, 2);
  EXPECT_NEAR(At(picture, 0, 880, 710), FakeCamera::BrightLuma, 2);
  EXPECT_NEAR(At(picture, 0, 1200, 360), 16, 2);
  EXPECT_NEAR(At(picture, 1, 440, 180), 128, 2);
}

}  // namespace
}  // namespace SoftImx::Test
