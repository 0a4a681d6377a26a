// Without memory a source loses the entry and nothing else: no thread, no buffer.
#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <limits>
#include <new>
#include <utility>

#include "Kdevice/ACC/AccDevice.h"
#include "Support/Media.h"
#include "Support/Nmea.h"
#include "Tavi/Accel/AccPipelineElement.h"
#include "Tavi/Audio/AudioPipelineElement.h"
#include "Tavi/Gps/GpsPipelineElement.h"
#include "Tavi/Other/OtherPipelineElement.h"
#include "Tavi/Video/PreviewPipelineElement.h"
#include "Tavi/Video/VideoPipelineElement.h"

namespace {

constexpr int Unlimited = std::numeric_limits<int>::max();
/// How many allocations this thread may still make, and how many of its own it has not given back.
thread_local int t_budget = Unlimited;
thread_local int t_live = 0;

}  // namespace

void* operator new(std::size_t size) {
  void* memory = t_budget > 0 ? std::malloc(size) : nullptr;
  if (memory == nullptr) throw std::bad_alloc();
  if (t_budget != Unlimited) --t_budget;
  ++t_live;
  return memory;
}

void operator delete(void* memory) noexcept {
  if (memory != nullptr) --t_live;
  std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
  operator delete(memory);
}

namespace {

using Ring = Kbase::Pipeline::IPipelineElement;

/// False when something was thrown. Whoever says so needs memory again.
template <class Body>
bool RunWithin(int budget, Body& body) {
  t_budget = budget;
  bool isQuiet = true;
  try {
    body();
  } catch (const std::bad_alloc&) {
    isQuiet = false;
  }
  t_budget = Unlimited;
  return isQuiet;
}

class OutOfMemoryTest : public Tavi::Testing::MediaTest {
 protected:
  /// Delivers with room for one allocation more each time, until that makes an entry. Returns how many were lost; none
  /// of them may leave anything behind, and the next one finds everything as it was.
  template <class Deliver>
  static int Starve(const Ring& ring, Deliver deliver) {
    // What is made once, at the first entry, is no leak.
    deliver();
    deliver();
    int lost = 0;
    for (std::uint64_t before = ring.GetCurrentFrameId(); ring.GetCurrentFrameId() == before; ++lost) {
      const int live = t_live;
      const bool isQuiet = RunWithin(lost, deliver);
      const int left = t_live - live;
      EXPECT_TRUE(isQuiet) << "with room for " << lost;
      if (ring.GetCurrentFrameId() != before) continue;
      EXPECT_EQ(left, 0) << "with room for " << lost;
    }
    --lost;
    const std::uint64_t made = ring.GetCurrentFrameId();
    deliver();
    EXPECT_EQ(ring.GetCurrentFrameId(), made + 1);
    EXPECT_GT(lost, 0);
    return lost;
  }
};

TEST_F(OutOfMemoryTest, ASensorGoesOnWithItsNextRecord) {
  Tavi::Gps::GpsPipelineElement gps(Tavi::Gps::GpsConfig(), 8);
  const std::string epoch = MakeSentence("GPRMC,120000.00,A,4807.0380,N,01131.0000,E,30.5,84.4,230326,,");
  Starve(gps, [&, text = epoch]() mutable { gps.Invoke(nullptr, text.data()); });
  Tavi::Accel::AccPipelineElement acc(Tavi::Accel::AccConfig(), 8);
  const std::array<std::uint8_t, 30> native{};
  Kdevice::ACC::SampleBlock block{native.data(), native.size()};
  Starve(acc, [&] { acc.Invoke(nullptr, &block); });
  Tavi::Other::OtherPipelineElement other(Tavi::Other::OtherConfig(), 8);
  Starve(other, [&] { other.Tick(nullptr); });
}

/// Buffers on their way through a sink of the test's own, as a branch delivers them.
class Stream {
 public:
  Stream() : m_pipeline(gst_parse_launch("appsrc name=in format=time ! appsink name=out sync=false", nullptr)) {
    m_in = gst_bin_get_by_name(GST_BIN(m_pipeline), "in");
    m_out = gst_bin_get_by_name(GST_BIN(m_pipeline), "out");
    g_object_set(m_out, "enable-last-sample", FALSE, nullptr);
    gst_element_set_state(m_pipeline, GST_STATE_PLAYING);
  }
  ~Stream() { End(); }
  /// Sends one buffer and has the callback take it.
  void Deliver(GstFlowReturn (*callback)(GstAppSink*, void*), void* element) {
    const int budget = std::exchange(t_budget, Unlimited);
    GstBuffer* buffer = Tavi::Testing::MakeBuffer("frame", 0);
    gst_mini_object_weak_ref(
        GST_MINI_OBJECT_CAST(buffer), [](gpointer count, GstMiniObject*) { ++*static_cast<int*>(count); }, &m_freed);
    gst_app_src_push_buffer(GST_APP_SRC(m_in), buffer);
    ++m_sent;
    t_budget = budget;
    callback(GST_APP_SINK(m_out), element);
  }
  /// A sink keeps its latest buffer until it ends.
  void End() {
    if (m_pipeline == nullptr) return;
    gst_element_set_state(m_pipeline, GST_STATE_NULL);
    gst_object_unref(m_in);
    gst_object_unref(m_out);
    gst_object_unref(std::exchange(m_pipeline, nullptr));
  }
  [[nodiscard]] int GetSent() const { return m_sent; }
  [[nodiscard]] int GetFreed() const { return m_freed; }

 private:
  GstElement* m_pipeline;
  GstElement* m_in = nullptr;
  GstElement* m_out = nullptr;
  int m_sent = 0;
  int m_freed = 0;
};

TEST_F(OutOfMemoryTest, ABranchGoesOnWithItsNextBuffer) {
  Stream sound, frames, previews;
  {
    GstElement* pipeline = gst_pipeline_new(nullptr);
    Tavi::Audio::AudioPipelineElement audio(pipeline, Tavi::Audio::AudioConfig(), 8);
    void* const microphone = static_cast<Tavi::Audio::GstAudioPipelineElement*>(&audio);
    const int lostSound = Starve(audio, [&] { sound.Deliver(audio.SetEncodedFrameCallback, microphone); });
    Tavi::Video::VideoConfig config;
    config.fps = config.previewFps;
    Tavi::Video::PreviewPipelineElement preview(config, 8);
    Tavi::Video::VideoPipelineElement video(pipeline, config, 8);
    video.SetPreviewElement(&preview);
    void* const camera = static_cast<Tavi::Video::GstVideoPipelineElement*>(&video);
    const int lostFrames = Starve(video, [&] { frames.Deliver(video.SetEncodedFrameCallback, camera); });
    const int lostPreviews = Starve(preview, [&] { previews.Deliver(video.SetPreviewFrameCallback, camera); });
    for (Stream* stream : {&sound, &frames, &previews}) stream->End();
    EXPECT_EQ(sound.GetFreed(), lostSound) << "the ring holds the others";
    EXPECT_EQ(frames.GetFreed(), lostFrames);
    EXPECT_EQ(previews.GetFreed(), lostPreviews);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(pipeline);
  }
  for (const Stream* stream : {&sound, &frames, &previews}) EXPECT_EQ(stream->GetFreed(), stream->GetSent());
}

}  // namespace
