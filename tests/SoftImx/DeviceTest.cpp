// The source on a capture device: what the device offers becomes what the unit expects.
#include <gmock/gmock.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "SoftImx/FakeCamera.h"
#include "SoftImx/GstRun.h"

namespace SoftImx::Test {
namespace {

class Device : public testing::Test {
 protected:
  void SetUp() override {
    if (!FakeCamera::IsPossible()) GTEST_SKIP() << "libumockdev-preload.so.0 is missing";
  }
};

// Catches a source that cannot open a device, delivers its format, size or rate instead of the unit's, distorts the
// picture, keeps the device busy after a stop, or ignores the number of buffers.
TEST_F(Device, BecomesTheUnitsFormat) {
  FakeCamera camera;
  GstRun run("imxv4l2videosrc name=src fps-n=30 queue-size=12 ! fakesink sync=false");
  GstElement* source = run.Get("src");
  g_object_set(source, "device", FakeCamera::Device, nullptr);
  std::vector<GstClockTime> stamps;
  Picture picture;
  run.OnBuffer("src", [&](GstBuffer* buffer) {
    stamps.push_back(GST_BUFFER_PTS(buffer));
    picture = ReadPicture(source, buffer);
    return GST_PAD_PROBE_OK;
  });
  for (int round = 0; round < 2; ++round) {
    stamps.clear();
    run.Play();
    ASSERT_TRUE(run.Wait([&] { return stamps.size() >= 31; })) << run.Error(std::chrono::milliseconds(0));
    EXPECT_THAT(CapsOf(source), testing::AllOf(testing::HasSubstr("I420"), testing::HasSubstr("width=(int)1280"),
                                               testing::HasSubstr("framerate=(fraction)30/1")));
    run.Stop();
    EXPECT_GE(stamps.front(), GST_MSECOND * FakeCamera::WarmUpMs) << "frames from before the camera's first";
    EXPECT_LT(stamps.front(), 5 * GST_SECOND) << "time did not start again";
    EXPECT_NEAR(static_cast<double>(stamps[30] - stamps[0]), static_cast<double>(GST_SECOND), 40.0);
    EXPECT_GE(camera.BufferCount(), 12U);
    // 4:3 in 16:9: black, 160 pixels of it on either side.
    ASSERT_EQ(picture.width, 1280);
    EXPECT_NEAR(picture.At(0, 80, 360), 16, 2);
    EXPECT_NEAR(picture.At(0, 400, 10), FakeCamera::DarkLuma, 2);
    EXPECT_NEAR(picture.At(0, 880, 710), FakeCamera::BrightLuma, 2);
    EXPECT_NEAR(picture.At(0, 1200, 360), 16, 2);
    EXPECT_NEAR(picture.At(1, 440, 180), 128, 2);
  }
}

// Catches a camera that is pulled out and leaves a source that is silent, or an error that does not name it.
TEST_F(Device, PulledOutIsAnError) {
  FakeCamera camera;
  int frames = 0;
  GstRun run("imxv4l2videosrc name=src ! fakesink sync=false");
  g_object_set(run.Get("src"), "device", FakeCamera::Device, nullptr);
  run.OnBuffer("src", [&](GstBuffer*) {
    ++frames;
    return GST_PAD_PROBE_OK;
  });
  run.Play();
  ASSERT_TRUE(run.Wait([&] { return frames >= 3; }));
  camera.Unplug();
  EXPECT_THAT(run.Error(std::chrono::seconds(5)), testing::HasSubstr(FakeCamera::Device));
}

}  // namespace
}  // namespace SoftImx::Test
