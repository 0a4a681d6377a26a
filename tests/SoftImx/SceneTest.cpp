// The simulated camera: its time, its looks, how it starts, stops and fails.
#include <gmock/gmock.h>
#include <gst/video/gstvideometa.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "SoftImx/GstRun.h"

namespace SoftImx::Test {
namespace {

constexpr std::int64_t SecondNs = 1'000'000'000;

struct SeenFrame {
  GstClockTime pts;
  GstClockTime duration;
  double luma;
};

struct Camera {
  const char* name;
  int fps;
  std::vector<SeenFrame> frames = {};

  [[nodiscard]] bool IsFlash(std::size_t i) const { return frames[i].luma > 220; }
  /// Time stamps of the first white frame of each flash that was seen to begin.
  [[nodiscard]] std::vector<GstClockTime> FlashStarts() const {
    std::vector<GstClockTime> starts;
    for (std::size_t i = 1; i < frames.size(); ++i) {
      if (IsFlash(i) && !IsFlash(i - 1)) starts.push_back(frames[i].pts);
    }
    return starts;
  }
};

/// Wall time minus running time of a playing pipeline.
std::int64_t WallOffset(GstElement* pipeline) {
  GstClock* clock = gst_element_get_clock(pipeline);
  const GstClockTime running = gst_clock_get_time(clock) - gst_element_get_base_time(pipeline);
  const std::int64_t offset = g_get_real_time() * 1000 - static_cast<std::int64_t>(running);
  gst_object_unref(clock);
  return offset;
}

void ExpectExactRate(const Camera& camera) {
  const GstClockTime step = GST_SECOND / static_cast<GstClockTime>(camera.fps);
  for (std::size_t i = 0; i < camera.frames.size(); ++i) {
    const SeenFrame& frame = camera.frames[i];
    const auto number = (frame.pts + step / 2) / step;
    EXPECT_EQ(frame.pts, gst_util_uint64_scale(number, GST_SECOND, static_cast<guint64>(camera.fps)));
    EXPECT_NEAR(static_cast<double>(frame.duration), static_cast<double>(step), 1);
    EXPECT_TRUE(frame.luma > 220 || frame.luma < 140) << "neither flash nor scene: " << frame.luma;
    EXPECT_EQ(frame.pts, i == 0 ? frame.pts : camera.frames[i - 1].pts + camera.frames[i - 1].duration);
  }
}

// Catches a scene that takes its time from its own frame count or start, and a rate that drifts.
TEST(Scene, TwoRatesKeepOneWallClock) {
  Camera cameras[] = {{"a", 30}, {"b", 15}};
  GstRun run(
      "imxv4l2videosrc name=a device=sim:front fps-n=30 ! fakesink imxv4l2videosrc name=b device=sim:rear fps-n=15 ! "
      "fakesink");
  for (Camera& camera : cameras) {
    GstElement* element = run.Get(camera.name);
    run.OnBuffer(camera.name, [&camera, element](GstBuffer* buffer) {
      camera.frames.push_back(
          {GST_BUFFER_PTS(buffer), GST_BUFFER_DURATION(buffer), ReadPicture(element, buffer).MeanLuma()});
      return GST_PAD_PROBE_OK;
    });
  }
  run.Play();
  ASSERT_TRUE(run.Wait([&] { return cameras[0].FlashStarts().size() >= 2 && cameras[1].FlashStarts().size() >= 2; }));
  const std::int64_t wallOffset = WallOffset(run.Pipeline());
  EXPECT_THAT(CapsOf(run.Get("b")),
              testing::AllOf(testing::HasSubstr("format=(string)I420, width=(int)1280"),
                             testing::HasSubstr("height=(int)720"), testing::HasSubstr("framerate=(fraction)15/1")));
  run.Stop();
  for (const Camera& camera : cameras) {
    ExpectExactRate(camera);
    const std::int64_t frameNs = SecondNs / camera.fps;
    for (const GstClockTime start : camera.FlashStarts()) {
      // A millisecond of slack on either side for the reading of two clocks.
      const std::int64_t afterSecond = (static_cast<std::int64_t>(start) + wallOffset + 1'000'000) % SecondNs;
      EXPECT_LE(afterSecond, frameNs + 2'000'000) << camera.name << " flashes late after the full second";
    }
  }
}

Picture FirstScene(const std::string& name) {
  Picture picture;
  GstRun run("imxv4l2videosrc name=src ! fakesink");
  GstElement* source = run.Get("src");
  g_object_set(source, "device", ("sim:" + name).c_str(), nullptr);
  run.OnBuffer("src", [&](GstBuffer* buffer) {
    if (picture.width == 0 || picture.MeanLuma() > 220) picture = ReadPicture(source, buffer);
    return GST_PAD_PROBE_OK;
  });
  run.Play();
  EXPECT_TRUE(run.Wait([&] { return picture.width != 0 && picture.MeanLuma() < 220; }));
  return picture;
}

/// The share of the sky and skyline's chroma and luma that differs visibly.
double Difference(const Picture& a, const Picture& b) {
  int differing = 0;
  for (int y = 280; y < 430; ++y) {
    for (int x = 0; x < 1280; ++x) {
      const int chroma = std::abs(a.At(1, x / 2, y / 2) - b.At(1, x / 2, y / 2)) +
                         std::abs(a.At(2, x / 2, y / 2) - b.At(2, x / 2, y / 2));
      if (chroma > 6 || std::abs(a.At(0, x, y) - b.At(0, x, y)) > 20) ++differing;
    }
  }
  return differing / (150.0 * 1280);
}

// Catches names that hash to the same look, and a look that changes from one start to the next.
TEST(Scene, LooksFollowTheName) {
  const std::vector<std::string> names = {"front", "rear", "cam0", "cam1", "front"};
  std::vector<Picture> pictures;
  for (const std::string& name : names) pictures.push_back(FirstScene(name));
  for (std::size_t i = 0; i + 1 < names.size(); ++i) {
    for (std::size_t j = i + 1; j < names.size(); ++j) {
      const double difference = Difference(pictures[i], pictures[j]);
      EXPECT_EQ(difference == 0, names[i] == names[j]);
      EXPECT_TRUE(difference == 0 || difference > 0.2) << names[i] << " looks like " << names[j];
    }
  }
}

// Catches a source that keeps its old device or clock after a restart, and a stop that waits for the next frame.
TEST(Scene, RestartsAndStopsAtOnce) {
  int frames = 0;
  GstClockTime firstPts = GST_CLOCK_TIME_NONE;
  GstRun run("imxv4l2videosrc name=src ! fakesink");
  run.OnBuffer("src", [&](GstBuffer* buffer) {
    if (frames++ == 0) firstPts = GST_BUFFER_PTS(buffer);
    return GST_PAD_PROBE_OK;
  });
  for (const char* device : {"sim:front", "sim:rear"}) {
    frames = 0;
    g_object_set(run.Get("src"), "device", device, nullptr);
    run.Play();
    ASSERT_TRUE(run.Wait([&] { return frames >= 5; })) << device;
    run.Stop();
    EXPECT_LT(firstPts, GST_SECOND) << "time did not start again";
  }
  g_object_set(run.Get("src"), "fps-n", 1, "fps-d", 60, nullptr);
  run.Play();
  const gint64 startUs = g_get_monotonic_time();
  run.Stop();
  EXPECT_LT(g_get_monotonic_time() - startUs, G_USEC_PER_SEC) << "a stop waited for the next frame";
}

// Catches a source that, once held up, delivers stale frames for ever or leaves the grid of its rate.
TEST(Scene, GivesUpFramesAfterAStall) {
  std::vector<GstClockTime> stamps;
  GstClockTime lostAt = GST_CLOCK_TIME_NONE;
  GstRun run("imxv4l2videosrc name=src device=sim:front fps-n=30 queue-size=3 ! fakesink");
  GstElement* source = run.Get("src");
  run.OnBuffer("src", [&](GstBuffer* buffer) {
    const bool isLost = !stamps.empty() && GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DISCONT);
    if (isLost && !GST_CLOCK_TIME_IS_VALID(lostAt)) lostAt = GST_BUFFER_PTS(buffer);
    stamps.push_back(GST_BUFFER_PTS(buffer));
    if (stamps.size() != 4) return GST_PAD_PROBE_OK;
    GstClock* clock = gst_element_get_clock(source);
    GstClockID wake = gst_clock_new_single_shot_id(clock, gst_clock_get_time(clock) + 500 * GST_MSECOND);
    gst_clock_id_wait(wake, nullptr);
    gst_clock_id_unref(wake);
    gst_object_unref(clock);
    return GST_PAD_PROBE_OK;
  });
  run.Play();
  ASSERT_TRUE(run.Wait([&] { return GST_CLOCK_TIME_IS_VALID(lostAt) && stamps.size() > 8; }));
  run.Stop();
  EXPECT_GE(lostAt, stamps[3] + 500 * GST_MSECOND) << "a frame from before the stall's end";
  EXPECT_EQ(lostAt, gst_util_uint64_scale((lostAt + 1'000'000) * 30 / GST_SECOND, GST_SECOND, 30));
}

// Catches a rectangle that is missing, stale, or reaches out of the frame.
TEST(Scene, CropIsMarkedOnFrames) {
  struct Case {
    int x, y, width, height;
    std::vector<guint> marked;
  };
  const Case cases[] = {{72, 8, 1176, 664, {72, 8, 1176, 664}},
                        {1000, 700, 1280, 720, {1000, 700, 280, 20}},
                        {1280, 0, 100, 100, {}},
                        {10, 10, 0, 100, {}}};
  for (const Case& c : cases) {
    std::vector<guint> marked;
    int frames = 0;
    GstRun run("imxv4l2videosrc name=src device=sim:front ! fakesink");
    g_object_set(run.Get("src"), "crop-meta-x", c.x, "crop-meta-y", c.y, "crop-meta-width", c.width, "crop-meta-height",
                 c.height, nullptr);
    run.OnBuffer("src", [&](GstBuffer* buffer) {
      const GstVideoCropMeta* meta = gst_buffer_get_video_crop_meta(buffer);
      if (frames++ == 0 && meta != nullptr) marked = {meta->x, meta->y, meta->width, meta->height};
      return GST_PAD_PROBE_OK;
    });
    run.Play();
    ASSERT_TRUE(run.Wait([&] { return frames > 0; }));
    run.Stop();
    EXPECT_EQ(marked, c.marked);
  }
}

// Catches a scene in a missing camera's place, an error that does not say which camera, and a source that is no use
// after it.
TEST(Scene, MissingDeviceIsAnError) {
  for (const char* device : {"/dev/video-missing", "/dev/null", "", "sim:"}) {
    int frames = 0;
    GstRun run("imxv4l2videosrc name=src ! fakesink");
    g_object_set(run.Get("src"), "device", device, nullptr);
    run.OnBuffer("src", [&](GstBuffer*) {
      ++frames;
      return GST_PAD_PROBE_OK;
    });
    EXPECT_EQ(run.Play(), GST_STATE_CHANGE_FAILURE) << device;
    EXPECT_THAT(run.Error(std::chrono::seconds(2)), testing::HasSubstr("\"" + std::string(device) + "\""));
    run.Stop();
    EXPECT_EQ(frames, 0) << device;
    g_object_set(run.Get("src"), "device", "sim:front", nullptr);
    run.Play();
    EXPECT_TRUE(run.Wait([&] { return frames > 0; })) << device;
  }
}

}  // namespace
}  // namespace SoftImx::Test
