// The source on a capture device: what the device offers becomes what the unit expects.
#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <utility>
#include <vector>

#include "Simulator/EncodedMaterial.h"
#include "Simulator/FakeCamera.h"
#include "SoftImx/GstRun.h"

namespace SoftImx::Test {
namespace {

using Tavi::Simulator::AccessUnitBytes;
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

struct KeptBytes {
  AccessUnitBytes bytes;
  /// Orders who reads behind the thread that has kept them.
  std::atomic<bool> isThere{false};
};

/// A mode that delivers one grey picture.
FakeCamera::Mode Grey(std::uint32_t format, std::uint32_t width, std::uint32_t height, std::uint32_t fps) {
  const std::string size = ",width=" + std::to_string(width) + ",height=" + std::to_string(height);
  const std::string end = format == V4L2_PIX_FMT_MJPEG ? " ! jpegenc" : "";
  KeptBytes kept;
  GstRun run(
      "videotestsrc name=in num-buffers=1 pattern=solid-color foreground-color=0xff646464 ! video/x-raw,format=" +
      std::string(end.empty() ? "YUY2" : "I420") + size + " ! identity" + end + " ! fakesink name=out");
  const auto pad = GstRef<GstPad>::Adopt(gst_element_get_static_pad(run.Get("out"), "sink"));
  const auto keep = [](GstPad*, GstPadProbeInfo* info, gpointer to) {
    GstBuffer* buffer = GST_PAD_PROBE_INFO_BUFFER(info);
    auto& [bytes, isThere] = *static_cast<KeptBytes*>(to);
    bytes.resize(gst_buffer_get_size(buffer));
    gst_buffer_extract(buffer, 0, bytes.data(), bytes.size());
    isThere = true;
    return GST_PAD_PROBE_OK;
  };
  gst_pad_add_probe(pad.Get(), GST_PAD_PROBE_TYPE_BUFFER, keep, &kept, nullptr);
  run.Play();
  run.WaitForEnd();
  EXPECT_TRUE(kept.isThere);
  return {format, width, height, fps, {kept.bytes}};
}

// Catches a camera that is led in a slow raw mode where it has a fast one, pictures in JPEG's full range, and a choice
// that nobody is told of.
TEST(Device, ServesInItsBestMode) {
  if (!FakeCamera::IsPossible()) GTEST_SKIP() << "libumockdev-preload.so.0 is missing";
  gst_init(nullptr, nullptr);
  const std::vector modes{Grey(V4L2_PIX_FMT_YUYV, 640, 480, 30), Grey(V4L2_PIX_FMT_YUYV, 1280, 720, 10),
                          Grey(V4L2_PIX_FMT_MJPEG, 640, 480, 30), Grey(V4L2_PIX_FMT_MJPEG, 1280, 720, 30)};
  struct Case {
    const char* asked;
    std::size_t mode;
    const char* told;
  };
  const Case cases[] = {
      {"width=1280 height=720 fps-n=30", 3, "is captured as MJPEG 1280x720 at 30 frames/s.\n"},
      {"width=1280 height=720 fps-n=10", 1, "is captured as YUY2 1280x720 at 10 frames/s.\n"},
      {"width=640 height=480 fps-n=30", 0, "is captured as YUY2 640x480 at 30 frames/s.\n"},
      {"width=1920 height=1080 fps-n=15", 3,
       "is captured as MJPEG 1280x720 at 30 frames/s, which becomes 1920x1080 at 15 frames/s.\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.asked);
    FakeCamera camera(modes);
    ASSERT_EQ(camera.PlugIn(), "");
    Picture picture;
    int frames = 0;
    GstRun run("imxv4l2videosrc name=src device=/dev/video9 " + std::string(c.asked) + " ! fakesink sync=false");
    run.OnBuffer("src", [&](GstPad* pad, GstBuffer* buffer) {
      picture = MapPicture(pad, buffer);
      ++frames;
    });
    ASSERT_TRUE(run.PlayUntil([&] { return frames > 5; })) << run.Error();
    EXPECT_EQ(camera.ChosenMode(), c.mode);
    EXPECT_THAT(run.Infos(), testing::HasSubstr(c.told));
    run.Stop();
    EXPECT_NEAR(At(picture, 0, picture->info.width / 2, picture->info.height / 2), 16.0 + 100.0 * 219.0 / 255.0, 3.5);
  }
}

struct Encoding {
  const char* what;
  std::vector<AccessUnitBytes> units;
  /// How many of the recorded units are the camera's own, from its second key frame on.
  std::size_t taken;
  const char* told;
};

/// Whether it is the same picture; start codes and parameter sets may be written otherwise.
bool IsSamePicture(const AccessUnitBytes& recorded, const AccessUnitBytes& unit) {
  constexpr std::ptrdiff_t Head = 60;
  return recorded.size() + Head > unit.size() && std::ssize(unit) > Head &&
         std::equal(unit.rbegin(), unit.rend() - Head, recorded.rbegin());
}

constexpr std::size_t Recorded = 24;

/// Ten frames a second.
std::vector<Encoding> Encodings() {
  const auto encode = [](int gop) { return Tavi::Simulator::EncodeH264(320, 240, 10, gop, 40); };
  const auto right = encode(10);
  auto reordered = right;
  reordered[5][5] |= 4;  // Its slice's type is 6 instead of 5.
  auto changing = encode(7);
  changing.erase(changing.begin(), changing.begin() + 7);
  changing.insert(changing.begin(), right.begin(), right.begin() + 20);
  return {{"on the grid", right, Recorded, "recorded as it encodes"},
          {"another interval", encode(7), 0, "after 7 frames: encoded anew"},
          {"B frames", reordered, 0, "B frames: encoded anew"},
          {"an interval that changes", changing, 20, "encoded anew from here on"}};
}

// Catches a camera's stream that is encoded a second time, one that is taken although readers would not find its key
// frames, frames at the start that no decoder knows what to do with, and a grid that moves when a stream is left.
TEST(Device, ItsOwnH264IsRecordedWhileItKeepsToTheGrid) {
  if (!FakeCamera::IsPossible()) GTEST_SKIP() << "libumockdev-preload.so.0 is missing";
  gst_init(nullptr, nullptr);
  if (GstRef<GstElementFactory>::Adopt(gst_element_factory_find("h264parse")).Get() == nullptr) GTEST_SKIP();
  for (const Encoding& c : Encodings()) {
    SCOPED_TRACE(c.what);
    FakeCamera camera({{V4L2_PIX_FMT_H264, 320, 240, 10, c.units}});
    ASSERT_EQ(camera.PlugIn(), "");
    std::vector<AccessUnitBytes> recorded;
    std::vector<bool> keys;
    std::vector<GstClockTime> shown;
    std::vector<GstClockTime> times;
    GstRun run(
        "imxv4l2videosrc name=src device=/dev/video9 width=320 height=240 fps-n=10 ! "
        "imxvpuenc_h264 name=enc idr-interval=10 ! fakesink sync=false");
    run.OnBuffer("src", [&](GstPad*, GstBuffer* buffer) { shown.push_back(GST_BUFFER_PTS(buffer)); });
    run.OnBuffer("enc", [&](GstPad*, GstBuffer* buffer) {
      gst_buffer_extract(buffer, 0, recorded.emplace_back(gst_buffer_get_size(buffer)).data(),
                         gst_buffer_get_size(buffer));
      keys.push_back(!GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT));
      times.push_back(GST_BUFFER_PTS(buffer));
    });
    ASSERT_TRUE(run.PlayUntil([&] { return recorded.size() >= Recorded; })) << run.Error();
    EXPECT_THAT(run.Infos(), testing::HasSubstr(c.told));
    run.Stop();
    for (std::size_t i = 0; i < Recorded; ++i) {
      // Until the next place of the grid the camera's key frames are where it puts them.
      EXPECT_EQ(keys[i], i % 10 == 0 || (c.taken == 20 && i == 17)) << i;
      EXPECT_EQ(times[i], shown[i]) << i;
      EXPECT_EQ(IsSamePicture(recorded[i], c.units[(i + 10) % c.units.size()]), i < c.taken) << i;
    }
  }
}

}  // namespace
}  // namespace SoftImx::Test
