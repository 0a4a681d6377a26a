// The compositor in pipelines: where pictures go, and what shows where there is none.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "SoftImx/GstRun.h"

namespace SoftImx::Test {
namespace {

constexpr const char* Input = " ! video/x-raw,format=I420,width=320,height=176,framerate=3/1 ! c.sink_";
constexpr const char* Rectangles =
    "sink_0::xpos=0 sink_0::ypos=0 sink_0::width=320 sink_0::height=176 "
    "sink_1::xpos=320 sink_1::ypos=0 sink_1::width=320 sink_1::height=176 start-time-selection=1 ";

/// A plain picture's luma: 235 for white, 81 for red, 41 for blue (BT.601).
std::string Plain(const char* pattern, const char* pad, int frames = 4) {
  return std::string("videotestsrc pattern=") + pattern + " num-buffers=" + std::to_string(frames) + Input + pad + " ";
}

// Catches pads that a launch line cannot set, pictures in the wrong place or not scaled, clipping that is off or writes
// beyond the frame, a background of another colour, and an input that ends and holds the others up.
TEST(Compositor, PutsEachPictureIntoItsRectangle) {
  struct Look {
    int x, y, luma;
  };
  const struct {
    const char* what;
    std::string launch;
    int width, height;
    std::vector<Look> first, last;
  } cases[] = {
      {"side by side, sized by downstream",
       Plain("white", "0") + Plain("red", "1", 1) + "imxipucompositor name=c background-color=0x000000 " + Rectangles +
           "! tee name=t !video/x-raw,width=640,height=176, framerate=3/1 ! fakesink async=0 t. ! fakesink async=0",
       640,
       176,
       {{2, 2, 235}, {318, 174, 235}, {321, 2, 81}, {638, 174, 81}},
       {{318, 90, 235}, {322, 90, 16}}},
      {"scaled, beyond all four edges, over blue; the size holds what is to the right and below",
       Plain("white", "0") + Plain("red", "1") +
           "imxipucompositor name=c background-color=255 sink_0::xpos=-20 sink_0::ypos=-10 sink_0::width=40 "
           "sink_0::height=20 sink_1::xpos=81 sink_1::ypos=31 sink_1::width=100 sink_1::height=101 ! "
           "video/x-raw,width=121,height=81 ! fakesink",
       121,
       81,
       {{0, 0, 235}, {19, 9, 235}, {20, 0, 41}, {0, 10, 41}, {79, 40, 41}, {100, 29, 41}, {82, 33, 81}, {120, 80, 81}},
       {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<Picture> out;
    GstRun run(c.launch);
    run.OnBuffer("c", [&](GstPad* pad, GstBuffer* buffer) { out.push_back(MapPicture(pad, buffer)); });
    ASSERT_TRUE(run.PlayUntil([&] { return out.size() == 4; }));
    EXPECT_EQ(GST_VIDEO_FRAME_WIDTH(out[0]), c.width);
    EXPECT_EQ(GST_VIDEO_FRAME_HEIGHT(out[0]), c.height);
    for (const Look& look : c.first) EXPECT_NEAR(At(out[0], 0, look.x, look.y), look.luma, 2) << look.x;
    for (const Look& look : c.last) EXPECT_NEAR(At(out[3], 0, look.x, look.y), look.luma, 2) << look.x;
  }
}

// Catches a live input that never delivers and holds the output up, pads that stay after their release, and settings
// that are lost at a restart.
TEST(Compositor, ShowsTheBackgroundForASilentInputAndRestarts) {
  int pictures = 0;
  int left = 0;
  int right = 0;
  GstRun run("videotestsrc is-live=1 pattern=white" + std::string(Input) +
             "0 videotestsrc is-live=1 ! valve drop=1 drop-mode=1" + Input +
             "1 imxipucompositor name=c background-color=0xff0000 " + Rectangles + "! fakesink");
  run.OnBuffer("c", [&](GstPad* pad, GstBuffer* buffer) {
    const auto picture = MapPicture(pad, buffer);
    left = At(picture, 0, 318, 90);
    right = At(picture, 0, GST_VIDEO_FRAME_WIDTH(picture) - 2, 90);
    ++pictures;
  });
  for (int start = 0; start < 2; ++start) {
    pictures = 0;
    ASSERT_TRUE(run.PlayUntil([&] { return pictures >= 2 && left > 200; }));
    run.Stop();
    EXPECT_NEAR(right, 81, 2);
  }
  GstElement* compositor = run.Get("c");
  auto pad = GstRef<GstPad>::Adopt(gst_element_get_static_pad(compositor, "sink_1"));
  gst_element_release_request_pad(compositor, pad.Get());
  EXPECT_EQ(gst_child_proxy_get_children_count(GST_CHILD_PROXY(compositor)), 1U);
  EXPECT_EQ(GST_OBJECT_REFCOUNT_VALUE(pad.Get()), 1) << "the pad is kept";
}

}  // namespace
}  // namespace SoftImx::Test
