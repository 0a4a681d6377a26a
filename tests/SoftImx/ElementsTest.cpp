// The plug-in's elements in pipelines: the encoder, the transform, and the source on its simulated cameras.
#include <gmock/gmock.h>

#include <cmath>
#include <string>
#include <vector>

#include "SoftImx/GstRun.h"

namespace SoftImx::Test {
namespace {

/// What an access unit holds: its parameter sets and pictures in their order, and its time stamps.
std::string Describe(GstBuffer* buffer) {
  std::string text = GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT) ? "delta " : "key ";
  GstMapInfo map;
  gst_buffer_map(buffer, &map, GST_MAP_READ);
  for (gsize i = 0; i + 5 < map.size; ++i) {
    if (map.data[i] != 0 || map.data[i + 1] != 0 || map.data[i + 2] != 1) continue;
    const int type = map.data[i + 3] & 31;
    const int start = map.data[i + 4];
    if (type == 7) text += start <= 77 ? "SPS " : "SPS-beyond-main-profile ";
    if (type == 8) text += "PPS ";
    // Exp-Golomb numbers: the first macroblock is 0 in a picture's first slice, the slice's type is 1 or 6 for B.
    if ((type != 1 && type != 5) || (start & 0x80) == 0) continue;
    const bool isB = (start & 0x70) == 0x20 || (start & 0x7c) == 0x1c;
    text += isB ? "B " : type == 5 ? "IDR " : "P ";
  }
  gst_buffer_unmap(buffer, &map);
  return text + std::to_string(GST_BUFFER_PTS(buffer)) + " " + std::to_string(GST_BUFFER_DTS(buffer));
}

class Encoder : public testing::TestWithParam<const char*> {};
INSTANTIATE_TEST_SUITE_P(Both, Encoder, testing::Values("x264", "openh264"),
                         [](const auto& tested) { return tested.param; });

// Catches scene cuts at white flashes, key frames off the grid or without parameter sets, reordering, a delay, moved
// time stamps, and a bit rate in the wrong unit.
TEST_P(Encoder, KeyFramesLieOnTheGridWhateverThePicture) {
  gst_init(nullptr, nullptr);
  if (!GstRef<GstElementFactory>::Adopt(gst_element_factory_find((GetParam() + std::string("enc")).c_str())))
    GTEST_SKIP();
  const bool isX264 = GetParam() == std::string("x264");
  constexpr std::size_t Frames = 65;
  struct Case {
    const char* caps;
    double kilobitsPerFrame;
    const char* properties;
    std::size_t interval;
    GstClockTime stepNs;
  };
  const Case cases[] = {
      {"width=1280,height=720,framerate=15/1", 1024.0 / 15, "idr-interval=15 gop-size=15", 15, 66'666'667},
      {"width=640,height=176,framerate=3/1", 1024.0 / 3, "idr-interval=6 gop-size=6", 6, 0},  // All time stamps alike.
      {"width=320,height=176,framerate=30/1", 1024.0 / 30, "gop-size=10", 10, 33'333'333},
      {"width=320,height=176,framerate=30/1", 1024.0 / 30, "", 30, 33'333'333},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.properties);
    std::vector<GstClockTime> fed;
    std::vector<std::string> units;
    double kilobits = 0.0;
    GstRun run("videotestsrc name=in kt=5 kx2=2 ky2=2 num-buffers=" + std::to_string(Frames) +
               " ! video/x-raw,format=I420," + c.caps + " ! imxvpuenc_h264 name=enc bitrate=1024 codec=" + GetParam() +
               " " + c.properties + " ! fakesink name=out");
    run.OnBuffer("in", [&](GstPad*, GstBuffer* buffer) {
      EXPECT_EQ(units.size(), fed.size()) << "a frame was held back";
      // A nanosecond more here and there must come out as it went in.
      fed.push_back(123'456'789 + fed.size() * c.stepNs + (c.stepNs == 0 ? 0 : fed.size() % 3));
      GST_BUFFER_PTS(buffer) = fed.back();
      gst_util_set_object_arg(G_OBJECT(run.Get("in")), "pattern",
                              fed.size() % 7 < 2 ? "white"
                              : isX264           ? "snow"
                                                 : "zone-plate");
      if (fed.size() != 4) return;  // Now a network client connects and asks for a key frame.
      gst_element_send_event(run.Get("out"), gst_video_event_new_upstream_force_key_unit(GST_CLOCK_TIME_NONE, TRUE, 1));
    });
    run.OnBuffer("enc", [&](GstPad*, GstBuffer* buffer) {
      units.push_back(Describe(buffer));
      kilobits += static_cast<double>(gst_buffer_get_size(buffer)) * 8 / 1000;
    });
    ASSERT_TRUE(run.PlayUntil([&] { return units.size() == Frames; }));
    run.Stop();
    // OpenH264 has a least quality, which takes more for noise, and counts by time stamps.
    if (isX264 || &c == cases) {
      EXPECT_NEAR(kilobits / Frames, c.kilobitsPerFrame, 0.3 * c.kilobitsPerFrame);
    }
    for (std::size_t i = 0; i < fed.size(); ++i) {
      const std::string stamp = std::to_string(fed[i]);
      EXPECT_EQ(units[i], (i % c.interval == 0 ? "key SPS PPS IDR " : "delta P ") + stamp + " " + stamp) << i;
    }
  }
}

struct Rect {
  guint x, y, width, height;
};

/// Luma and V say how far to the right a place is, U how far down, 0 to 1 each. Scaling a ramp gives a ramp.
double Ramp(guint component, double right, double down) {
  return 20 + 200 * (component == 1 ? down : right);
}

/// Fills the picture and tells its size.
GstVideoInfo PaintRamps(const Picture& picture) {
  for (guint component = 0; component < 3; ++component) {
    const int width = GST_VIDEO_FRAME_COMP_WIDTH(picture, component);
    const int height = GST_VIDEO_FRAME_COMP_HEIGHT(picture, component);
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width; ++x) {
        const double value = Ramp(component, (x + 0.5) / width, (y + 0.5) / height);
        At(picture, component, x, y) = static_cast<guint8>(std::lround(value));
      }
    }
  }
  return picture->info;
}

// Catches a crop that is off by an edge, of luma only, stretched wrongly or left on the buffer, and a needless copy.
TEST(Transform, ShowsTheRectangleScaledToTheOutput) {
  struct Case {
    const char* what;
    const char* in;
    Rect crop;
    const char* out;
    Rect shown;
    bool isSameMemory;
  };
  constexpr const char* Camera = "I420,width=1280,height=720";
  constexpr const char* Vga = "I420,width=640,height=480";
  const Case cases[] = {
      {"camera crop", Camera, {72, 8, 1176, 664}, Camera, {72, 8, 1176, 664}, false},
      {"preview of a crop", Camera, {640, 360, 640, 360}, "I420,width=320,height=176", {640, 360, 640, 360}, false},
      {"odd edges widen to the chroma grid", Vga, {101, 51, 300, 200}, Vga, {100, 50, 302, 202}, false},
      {"crop beyond the frame is cut", Vga, {320, 240, 9000, 9000}, Vga, {320, 240, 320, 240}, false},
      {"crop outside the frame counts as none", Vga, {640, 0, 10, 10}, Vga, {0, 0, 640, 480}, true},
      {"nothing to do", Vga, {}, Vga, {0, 0, 640, 480}, true},
      {"another format, crop", "NV12,width=1280,height=720", {72, 8, 1176, 664}, Camera, {72, 8, 1176, 664}, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    GstVideoInfo in;
    Picture out;
    const GstMemory* memory = nullptr;
    GstRun run("videotestsrc name=in num-buffers=1 ! video/x-raw,format=" + std::string(c.in) +
               " ! imxipuvideotransform name=t ! video/x-raw,format=" + c.out + " ! fakesink");
    run.OnBuffer("in", [&](GstPad* pad, GstBuffer* buffer) {
      in = PaintRamps(MapPicture(pad, buffer, GST_MAP_WRITE));
      memory = gst_buffer_peek_memory(buffer, 0);
      if (c.crop.width == 0) return;
      GstVideoCropMeta* meta = gst_buffer_add_video_crop_meta(buffer);
      meta->x = c.crop.x;
      meta->y = c.crop.y;
      meta->width = c.crop.width;
      meta->height = c.crop.height;
    });
    run.OnBuffer("t", [&](GstPad* pad, GstBuffer* buffer) {
      EXPECT_EQ(gst_buffer_peek_memory(buffer, 0) == memory, c.isSameMemory);
      EXPECT_EQ(gst_buffer_get_video_crop_meta(buffer), nullptr);
      out = MapPicture(pad, buffer);
    });
    ASSERT_TRUE(run.PlayUntil([&] { return out != nullptr; }));
    for (guint component = 0; component < 3; ++component) {
      const int width = GST_VIDEO_FRAME_COMP_WIDTH(out, component);
      const int height = GST_VIDEO_FRAME_COMP_HEIGHT(out, component);
      for (const double at : {0.0, 0.02, 0.33, 0.5, 0.98, 0.9999}) {
        const int x = static_cast<int>(at * width);
        const int y = static_cast<int>(at * height);
        const double right = (c.shown.x + (x + 0.5) * c.shown.width / width) / in.width;
        const double down = (c.shown.y + (y + 0.5) * c.shown.height / height) / in.height;
        EXPECT_NEAR(At(out, component, x, y), Ramp(component, right, down), 1.6) << component << " " << x;
      }
    }
  }
}

/// Whether the picture is the white that a full second begins with; looks at its diagonal.
bool IsFlash(const Picture& picture) {
  int sum = 0;
  for (int i = 0; i < 64; ++i) sum += At(picture, 0, 20 * i, 11 * i);
  return sum > 220 * 64;
}

// Catches a scene that takes its time from its own frame count or start, and a rate that drifts.
TEST(Scene, TwoRatesKeepOneWallClock) {
  struct Camera {
    const char* name;
    guint64 fps;
    std::vector<GstClockTime> stamps = {};
    std::vector<bool> flashes = {};
  };
  Camera cameras[] = {{"a", 30}, {"b", 15}};
  GstRun run("imxv4l2videosrc name=a device=sim:a ! fakesink imxv4l2videosrc name=b device=sim:b fps-n=15 ! fakesink");
  for (Camera& camera : cameras) {
    run.OnBuffer(camera.name, [&camera](GstPad* pad, GstBuffer* buffer) {
      camera.stamps.push_back(GST_BUFFER_PTS(buffer));
      camera.flashes.push_back(IsFlash(MapPicture(pad, buffer)));
    });
  }
  ASSERT_TRUE(run.PlayUntil([&] { return cameras[0].stamps.size() > 70 && cameras[1].stamps.size() > 35; }));
  const auto clock = GstRef<GstClock>::Adopt(gst_element_get_clock(run.Get("a")));
  GstClockTime wallOffset = GST_CLOCK_TIME_NONE;
  for (int tries = 0; tries < 20; ++tries) {  // The machine may come in between.
    const GstClockTime runningNs = gst_clock_get_time(clock.Get()) - gst_element_get_base_time(run.Get("a"));
    wallOffset = std::min<GstClockTime>(wallOffset, static_cast<GstClockTime>(g_get_real_time()) * 1000 - runningNs);
  }
  run.Stop();
  for (const auto& [name, fps, stamps, flashes] : cameras) {
    int starts = 0;
    for (std::size_t i = 0; i < stamps.size(); ++i) {
      EXPECT_NEAR(static_cast<double>(stamps[i] - stamps[0]), static_cast<double>(i) * GST_SECOND / fps, 1.0);
      if (i == 0 || !flashes[i] || flashes[i - 1]) continue;
      ++starts;
      const GstClockTime wallNs = stamps[i] + wallOffset + GST_MSECOND;  // Slack for the reading of two clocks.
      EXPECT_LE(wallNs % GST_SECOND, 5 * GST_MSECOND) << name << " flashes late";
    }
    EXPECT_GE(starts, 2) << name;
  }
}

// Catches a source that keeps its old device, crop rectangle or clock after a restart, a rectangle that reaches out of
// the frame, names that give the same look, a look that changes with the start, and a stop that waits for a frame.
TEST(Scene, RestartsAsItWasSetAndStopsAtOnce) {
  std::vector<GstClockTime> stamps;
  std::vector<guint> marked;
  Picture picture;
  GstRun run(
      "imxv4l2videosrc name=src crop-meta-x=1000 crop-meta-y=700 crop-meta-width=1280 crop-meta-height=720 ! fakesink");
  run.OnBuffer("src", [&](GstPad* pad, GstBuffer* buffer) {
    stamps.push_back(GST_BUFFER_PTS(buffer));
    const GstVideoCropMeta* meta = gst_buffer_get_video_crop_meta(buffer);
    marked = meta != nullptr ? std::vector{meta->x, meta->y, meta->width, meta->height} : std::vector<guint>();
    picture = MapPicture(pad, buffer);
  });
  std::vector<std::vector<guint8>> skies;
  for (const char* device : {"sim:front", "sim:rear", "sim:front"}) {
    g_object_set(run.Get("src"), "device", device, nullptr);
    ASSERT_TRUE(run.PlayUntil([&] { return !stamps.empty() && !IsFlash(picture); }));
    run.Stop();
    EXPECT_LT(stamps.front(), GST_SECOND) << "time did not start again";
    EXPECT_EQ(marked, (std::vector<guint>{1000, 700, 280, 20}));
    skies.emplace_back(&At(picture, 1, 0, 140), &At(picture, 1, 0, 215));
    stamps.clear();
  }
  EXPECT_TRUE(skies[0] == skies[2]) << "another look at the next start";
  EXPECT_TRUE(skies[0] != skies[1]) << "two names, one look";
  g_object_set(run.Get("src"), "fps-n", 1, "fps-d", 60, nullptr);
  run.Play();
  const gint64 startUs = g_get_monotonic_time();
  run.Stop();
  EXPECT_LT(g_get_monotonic_time() - startUs, G_USEC_PER_SEC) << "a stop waited for the next frame";
}

// Catches a scene that is cut or only partly painted in another size, and a size that the encoder does not take.
TEST(Scene, ShowsTheSameStreetInEverySize) {
  std::vector<int> lumas;
  for (const auto& [width, height] : {std::pair(1280, 720), {16, 16}, {641, 480}, {1920, 1080}}) {
    SCOPED_TRACE(width);
    Picture picture;
    bool isEncoded = false;
    GstRun run("imxv4l2videosrc name=src device=sim:front width=" + std::to_string(width) +
               " height=" + std::to_string(height) + " ! imxvpuenc_h264 name=enc ! fakesink");
    run.OnBuffer("src", [&](GstPad* pad, GstBuffer* buffer) { picture = MapPicture(pad, buffer); });
    run.OnBuffer("enc", [&](GstPad*, GstBuffer*) { isEncoded = true; });
    ASSERT_TRUE(run.PlayUntil([&] { return isEncoded && At(picture, 0, 0, 0) < 200; }));
    run.Stop();
    EXPECT_EQ(std::pair(picture->info.width, picture->info.height), std::pair(width & ~1, height));
    std::vector<int> found;
    for (const auto& [right, down] : {std::pair(0.03, 0.2), {0.97, 0.2}, {0.97, 0.02}, {0.5, 0.97}, {0.02, 0.97}}) {
      found.push_back(At(picture, 0, static_cast<int>(right * width), static_cast<int>(down * height)));
    }
    if (lumas.empty()) lumas = found;
    EXPECT_THAT(found, testing::Pointwise(testing::FloatNear(14), lumas));
  }
}

// Catches a scene in a missing camera's place, an error that does not name the camera, and a source of no use after it.
TEST(Scene, MissingDeviceIsAnError) {
  for (const std::string device : {"/dev/video-missing", "/dev/null", "", "sim:"}) {
    SCOPED_TRACE(device);
    int frames = 0;
    GstRun run("imxv4l2videosrc name=src device=\"" + device + "\" ! fakesink");
    run.OnBuffer("src", [&](GstPad*, GstBuffer*) { ++frames; });
    EXPECT_EQ(run.Play(), GST_STATE_CHANGE_FAILURE);
    EXPECT_THAT(run.Error(), testing::HasSubstr("\"" + device + "\""));
    run.Stop();
    EXPECT_EQ(frames, 0);
    g_object_set(run.Get("src"), "device", "sim:front", nullptr);
    EXPECT_TRUE(run.PlayUntil([&] { return frames > 0; }));
  }
}

}  // namespace
}  // namespace SoftImx::Test
