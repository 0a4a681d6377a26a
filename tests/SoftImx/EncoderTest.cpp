// The encoder: where its key frames lie, what its access units hold, and their time stamps.
#include <gmock/gmock.h>
#include <gst/app/gstappsrc.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "SoftImx/GstRun.h"

namespace SoftImx::Test {
namespace {

/// What one output buffer holds.
struct AccessUnit {
  std::vector<int> nalTypes = {};
  std::set<unsigned> sliceTypes = {};
  int pictures = 0;
  int profile = 0;
  GstClockTime pts = GST_CLOCK_TIME_NONE;
  GstClockTime dts = GST_CLOCK_TIME_NONE;
  bool isDelta = false;
  std::size_t sizeBytes = 0;

  [[nodiscard]] bool Has(int type) const { return std::find(nalTypes.begin(), nalTypes.end(), type) != nalTypes.end(); }
  /// SPS and PPS before the first IDR slice.
  [[nodiscard]] bool IsSelfContained() const {
    const auto find = [this](int type) { return std::find(nalTypes.begin(), nalTypes.end(), type); };
    return find(5) != nalTypes.end() && find(7) < find(5) && find(8) < find(5);
  }
};

/// The Exp-Golomb number at bit `position`, which moves behind it.
unsigned ReadUe(const std::uint8_t* data, unsigned& position) {
  const auto bit = [&] {
    const unsigned value = data[position / 8] >> (7 - position % 8) & 1U;
    ++position;
    return value;
  };
  unsigned zeros = 0;
  while (zeros < 31 && bit() == 0) ++zeros;
  unsigned value = 1;
  for (unsigned i = 0; i < zeros; ++i) value = value << 1 | bit();
  return value - 1;
}

AccessUnit Parse(GstBuffer* buffer) {
  AccessUnit unit;
  unit.pts = GST_BUFFER_PTS(buffer);
  unit.dts = GST_BUFFER_DTS(buffer);
  unit.isDelta = GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
  GstMapInfo map;
  if (gst_buffer_map(buffer, &map, GST_MAP_READ) == FALSE) return unit;
  unit.sizeBytes = map.size;
  for (gsize i = 0; i + 8 < map.size; ++i) {
    if (map.data[i] != 0 || map.data[i + 1] != 0 || map.data[i + 2] != 1) continue;
    const int type = map.data[i + 3] & 31;
    unit.nalTypes.push_back(type);
    if (type == 7) unit.profile = map.data[i + 4];
    if (type != 1 && type != 5) continue;
    unsigned position = 0;
    if (ReadUe(map.data + i + 4, position) == 0) ++unit.pictures;
    unit.sliceTypes.insert(ReadUe(map.data + i + 4, position) % 5);
  }
  gst_buffer_unmap(buffer, &map);
  return unit;
}

/// An encoder fed by hand.
class Encoder {
 public:
  Encoder(int width, int height, int fps) : m_run("appsrc name=in format=time ! imxvpuenc_h264 name=enc ! fakesink") {
    SetSize(width, height, fps);
    m_run.OnBuffer("enc", [this](GstBuffer* buffer) {
      units.push_back(Parse(buffer));
      return GST_PAD_PROBE_OK;
    });
  }
  [[nodiscard]] GstElement* Get() const { return m_run.Get("enc"); }
  void Play() { m_run.Play(); }
  void Stop() { m_run.Stop(); }
  [[nodiscard]] std::string Error() const { return m_run.Error(std::chrono::milliseconds(0)); }

  void SetSize(int width, int height, int fps) {
    GstVideoInfo info;
    gst_video_info_set_format(&info, GST_VIDEO_FORMAT_I420, static_cast<guint>(width), static_cast<guint>(height));
    info.fps_n = fps;
    m_sizeBytes = GST_VIDEO_INFO_SIZE(&info);
    GstCaps* caps = gst_video_info_to_caps(&info);
    gst_app_src_set_caps(GST_APP_SRC(m_run.Get("in")), caps);
    gst_caps_unref(caps);
  }

  /// What a network client does that has just connected.
  void RequestKeyFrame() {
    GstPad* pad = gst_element_get_static_pad(Get(), "src");
    gst_pad_send_event(pad, gst_video_event_new_upstream_force_key_unit(GST_CLOCK_TIME_NONE, TRUE, 1));
    gst_object_unref(pad);
  }

  /// Feeds one frame and waits for its access unit: an encoder that holds a frame back fails here.
  [[nodiscard]] bool Encode(GstClockTime pts, bool isFlash) {
    GstBuffer* buffer = gst_buffer_new_allocate(nullptr, m_sizeBytes, nullptr);
    GstMapInfo map;
    gst_buffer_map(buffer, &map, GST_MAP_WRITE);
    for (gsize i = 0; i < map.size; ++i) map.data[i] = isFlash ? 235 : static_cast<guint8>(40 + (i / 7 + m_fed) % 90);
    gst_buffer_unmap(buffer, &map);
    GST_BUFFER_PTS(buffer) = pts;
    GST_BUFFER_DURATION(buffer) = GST_SECOND / 30;
    ++m_fed;
    return gst_app_src_push_buffer(GST_APP_SRC(m_run.Get("in")), buffer) == GST_FLOW_OK &&
           m_run.Wait([this] { return units.size() == m_fed; });
  }

  std::vector<AccessUnit> units;

 private:
  GstRun m_run;
  gsize m_sizeBytes = 0;
  std::size_t m_fed = 0;
};

// Catches scene cuts at white flashes, key frames off the grid, reordering, a delay, and moved time stamps.
TEST(Encoder, KeyFramesLieOnTheGridWhateverThePicture) {
  struct Case {
    const char* what;
    int width, height, fps;
    guint idrInterval, gopSize;
    std::size_t expectedInterval;
    GstClockTime stepNs;
    int frames;
  };
  const Case cases[] = {
      {"camera", 1280, 720, 15, 15, 15, 15, 66'666'667, 100},
      {"preview, its time stamps all alike", 640, 176, 3, 6, 6, 6, 0, 18},
      {"gop-size alone", 320, 176, 30, 0, 10, 10, 33'333'333, 35},
      {"neither interval", 320, 176, 30, 0, 0, 30, 33'333'333, 65},
      {"every frame", 64, 48, 30, 1, 1, 1, 33'333'333, 5},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Encoder encoder(c.width, c.height, c.fps);
    g_object_set(encoder.Get(), "bitrate", 1024U, "idr-interval", c.idrInterval, "gop-size", c.gopSize, nullptr);
    encoder.Play();
    std::vector<GstClockTime> fed;
    for (int i = 0; i < c.frames; ++i) {
      // A nanosecond more here and there must come out as it went in.
      fed.push_back(123'456'789 + static_cast<GstClockTime>(i) * c.stepNs + (c.stepNs == 0 ? 0 : guint(i % 3)));
      ASSERT_TRUE(encoder.Encode(fed.back(), i % 7 < 2)) << "frame " << i << " was held back";
      if (i == 4) encoder.RequestKeyFrame();
    }
    encoder.Stop();
    for (std::size_t i = 0; i < fed.size(); ++i) {
      const AccessUnit& unit = encoder.units[i];
      const bool isKey = i % c.expectedInterval == 0;
      EXPECT_EQ(unit.IsSelfContained(), isKey) << "frame " << i;
      EXPECT_EQ(unit.Has(5), isKey) << "frame " << i;
      EXPECT_EQ(unit.isDelta, !isKey) << "frame " << i;
      EXPECT_EQ(unit.pictures, 1) << "frame " << i;
      EXPECT_LE(unit.profile, 77) << "beyond the main profile";
      EXPECT_EQ(unit.sliceTypes.count(1), 0U) << "a B slice in frame " << i;
      EXPECT_EQ(unit.pts, fed[i]);
      EXPECT_EQ(unit.dts, fed[i]);
    }
  }
}

// Catches a time shift that is left in the segment: buffers would be right and their running time would not.
TEST(Encoder, SegmentIsUpstreams) {
  Encoder encoder(64, 48, 30);
  encoder.Play();
  ASSERT_TRUE(encoder.Encode(GST_SECOND, false));
  GstPad* pad = gst_element_get_static_pad(encoder.Get(), "src");
  GstEvent* event = gst_pad_get_sticky_event(pad, GST_EVENT_SEGMENT, 0);
  gst_object_unref(pad);
  ASSERT_NE(event, nullptr);
  GstSegment segment;
  gst_event_copy_segment(event, &segment);
  gst_event_unref(event);
  EXPECT_EQ(gst_segment_to_running_time(&segment, GST_FORMAT_TIME, GST_SECOND), GST_SECOND);
}

// Catches a crash or lost frames at a new size, and a new size without its parameter sets.
TEST(Encoder, TakesANewSize) {
  Encoder encoder(640, 176, 30);
  encoder.Play();
  const int sizes[][2] = {{640, 176}, {1280, 720}, {98, 50}};
  GstClockTime pts = 0;
  for (const auto& size : sizes) {
    encoder.SetSize(size[0], size[1], 30);
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(encoder.Encode(pts += GST_SECOND / 30, false)) << size[0];
  }
  encoder.Stop();
  for (std::size_t i = 0; i < encoder.units.size(); ++i) EXPECT_EQ(encoder.units[i].IsSelfContained(), i % 3 == 0);
  EXPECT_EQ(encoder.Error(), "");
}

// Catches a bit rate in the wrong unit, and one that cannot be changed while the encoder runs.
TEST(Encoder, HoldsTheBitRate) {
  constexpr int FramesPerPart = 90;
  std::vector<std::size_t> sizes;
  GstRun run(
      "videotestsrc pattern=snow ! video/x-raw,format=I420,width=640,height=360,framerate=30/1 ! imxvpuenc_h264 "
      "name=enc "
      "bitrate=2000 idr-interval=30 ! fakesink");
  GstElement* encoder = run.Get("enc");
  run.OnBuffer("enc", [&](GstBuffer* buffer) {
    sizes.push_back(gst_buffer_get_size(buffer));
    if (sizes.size() == FramesPerPart) g_object_set(encoder, "bitrate", 4000U, nullptr);
    return GST_PAD_PROBE_OK;
  });
  run.Play();
  ASSERT_TRUE(run.Wait([&] { return sizes.size() >= 2 * FramesPerPart; }));
  run.Stop();
  const auto kbps = [&](int from, int to) {
    std::size_t bytes = 0;
    for (int i = from; i < to; ++i) bytes += sizes[static_cast<std::size_t>(i)];
    return static_cast<double>(bytes) * 8 / 1000 * 30 / (to - from);
  };
  EXPECT_NEAR(kbps(0, FramesPerPart), 2000, 600);
  EXPECT_NEAR(kbps(FramesPerPart, 2 * FramesPerPart), 4000, 1200);
}

}  // namespace
}  // namespace SoftImx::Test
