// The transform: which input pixel each output pixel shows, and when it touches pixels at all.
#include <gmock/gmock.h>
#include <gst/app/gstappsrc.h>
#include <gst/video/gstvideometa.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>

#include "SoftImx/GstRun.h"

namespace SoftImx::Test {
namespace {

struct Rect {
  int x, y, width, height;
};

// Luma and V say how far to the right a pixel was, U how far down. Scaling a ramp gives a ramp.
double Ramp(double at, int length) {
  return 20 + 200 * at / length;
}

GstBuffer* Ramps(GstVideoFormat format, int width, int height) {
  GstVideoInfo info;
  gst_video_info_set_format(&info, format, static_cast<guint>(width), static_cast<guint>(height));
  GstBuffer* buffer = gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&info), nullptr);
  GstVideoFrame frame;
  gst_video_frame_map(&frame, &info, buffer, GST_MAP_WRITE);
  for (guint component = 0; component < 3; ++component) {
    auto* data = static_cast<guint8*>(GST_VIDEO_FRAME_COMP_DATA(&frame, component));
    const int step = GST_VIDEO_FRAME_COMP_PSTRIDE(&frame, component);
    for (int y = 0; y < GST_VIDEO_FRAME_COMP_HEIGHT(&frame, component); ++y) {
      for (int x = 0; x < GST_VIDEO_FRAME_COMP_WIDTH(&frame, component); ++x) {
        const double value = component == 0   ? Ramp(x + 0.5, width)
                             : component == 1 ? Ramp(2 * y + 1, height)
                                              : Ramp(2 * x + 1, width);
        data[y * GST_VIDEO_FRAME_COMP_STRIDE(&frame, component) + x * step] = static_cast<guint8>(std::lround(value));
      }
    }
  }
  gst_video_frame_unmap(&frame);
  return buffer;
}

struct Result {
  Picture picture = {};
  bool isSameMemory = false;
  bool hasCrop = false;
};

/// One frame of ramps through the transform. `crop` of width 0 is no crop rectangle at all.
Result Transform(GstVideoFormat format, int inWidth, int inHeight, Rect crop, int outWidth, int outHeight) {
  const std::string in = "video/x-raw,format=" + std::string(gst_video_format_to_string(format)) +
                         ",width=" + std::to_string(inWidth) + ",height=" + std::to_string(inHeight) +
                         ",framerate=30/1";
  GstRun run("appsrc name=in format=time caps=\"" + in +
             "\" ! imxipuvideotransform name=t ! video/x-raw,format=I420,width=" + std::to_string(outWidth) +
             ",height=" + std::to_string(outHeight) + " ! fakesink");
  GstBuffer* buffer = Ramps(format, inWidth, inHeight);
  if (crop.width != 0) {
    GstVideoCropMeta* meta = gst_buffer_add_video_crop_meta(buffer);
    meta->x = static_cast<guint>(crop.x);
    meta->y = static_cast<guint>(crop.y);
    meta->width = static_cast<guint>(crop.width);
    meta->height = static_cast<guint>(crop.height);
  }
  Result result;
  const GstMemory* memory = gst_buffer_peek_memory(buffer, 0);
  run.OnBuffer("t", [&](GstBuffer* output) {
    result.picture = ReadPicture(run.Get("t"), output);
    result.isSameMemory = gst_buffer_peek_memory(output, 0) == memory;
    result.hasCrop = gst_buffer_get_video_crop_meta(output) != nullptr;
    return GST_PAD_PROBE_OK;
  });
  run.Play();
  EXPECT_EQ(gst_app_src_push_buffer(GST_APP_SRC(run.Get("in")), buffer), GST_FLOW_OK);
  EXPECT_TRUE(run.Wait([&] { return result.picture.width != 0; })) << run.Error(std::chrono::milliseconds(0));
  run.Stop();
  return result;
}

// Catches a crop that is off by an edge, applied to luma only, stretched wrongly, left on the buffer, or copied where
// there is nothing to do.
TEST(Transform, ShowsTheRectangleScaledToTheOutput) {
  struct Case {
    const char* what;
    GstVideoFormat format;
    int inWidth, inHeight;
    Rect crop;
    int outWidth, outHeight;
    Rect shown;
    bool isSameMemory;
  };
  constexpr GstVideoFormat I420 = GST_VIDEO_FORMAT_I420;
  constexpr GstVideoFormat NV12 = GST_VIDEO_FORMAT_NV12;
  const Case cases[] = {
      {"camera crop", I420, 1280, 720, {72, 8, 1176, 664}, 1280, 720, {72, 8, 1176, 664}, false},
      {"preview", I420, 1280, 720, {}, 320, 176, {0, 0, 1280, 720}, false},
      {"crop and preview", I420, 1280, 720, {640, 360, 640, 360}, 320, 176, {640, 360, 640, 360}, false},
      {"odd edges widen to the chroma grid", I420, 640, 480, {101, 51, 300, 200}, 320, 240, {100, 50, 302, 202}, false},
      {"crop beyond the frame is cut", I420, 640, 480, {320, 240, 9000, 9000}, 640, 480, {320, 240, 320, 240}, false},
      {"crop outside the frame counts as none", I420, 640, 480, {640, 0, 10, 10}, 640, 480, {0, 0, 640, 480}, true},
      {"nothing to do", I420, 640, 480, {}, 640, 480, {0, 0, 640, 480}, true},
      {"crop of the whole frame", I420, 640, 480, {0, 0, 640, 480}, 640, 480, {0, 0, 640, 480}, true},
      {"another format", NV12, 640, 480, {}, 640, 480, {0, 0, 640, 480}, false},
      {"another format, crop", NV12, 1280, 720, {72, 8, 1176, 664}, 1280, 720, {72, 8, 1176, 664}, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const Result result = Transform(c.format, c.inWidth, c.inHeight, c.crop, c.outWidth, c.outHeight);
    EXPECT_EQ(result.isSameMemory, c.isSameMemory);
    EXPECT_FALSE(result.hasCrop);
    ASSERT_EQ(result.picture.width, c.outWidth);
    ASSERT_EQ(result.picture.height, c.outHeight);
    for (const double at : {0.0, 0.02, 0.33, 0.5, 0.98, 0.9999}) {
      const int x = static_cast<int>(at * c.outWidth / 2);
      const int y = static_cast<int>(at * c.outHeight / 2);
      const double inX = c.shown.x + (2 * x + 1.0) * c.shown.width / c.outWidth;
      const double inY = c.shown.y + (2 * y + 1.0) * c.shown.height / c.outHeight;
      EXPECT_NEAR(result.picture.At(0, 2 * x, 0), Ramp(inX, c.inWidth), 1.6) << "luma at column " << 2 * x;
      EXPECT_NEAR(result.picture.At(1, 0, y), Ramp(inY, c.inHeight), 1.6) << "U at row " << y;
      EXPECT_NEAR(result.picture.At(2, x, y), Ramp(inX, c.inWidth), 1.6) << "V at column " << x;
    }
  }
}

}  // namespace
}  // namespace SoftImx::Test
