// Clips of encoders that do not send their parameter sets with each key frame.
#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "KMedia/H264/AnnexB.h"
#include "Support/Media.h"
#include "Support/VideoDecode.h"
#include "Tavi/GstUtil/BufferMap.h"
#include "Tavi/Video/VideoPipelineCbElement.h"
#include "Tavi/Video/VideoPipelineCollect.h"
#include "Tavi/Video/VideoPipelineElement.h"

namespace {

using namespace Tavi::Video;
using KMedia::H264::NalType;

constexpr unsigned int Frames = 30;
constexpr unsigned int KeyInterval = 10;

class StreamSetupTest : public Tavi::Testing::MediaTest {
 protected:
  /// An encoder's output with its parameter sets in the caps ("avc") or with each key frame ("byte-stream").
  void StartEncoder(const std::string& format) {
    const std::string line = "videotestsrc num-buffers=" + std::to_string(Frames) +
                             " ! video/x-raw,format=I420,width=320,height=176,framerate=30/1 ! x264enc key-int-max=" +
                             std::to_string(KeyInterval) +
                             " bframes=0 tune=zerolatency ! video/x-h264,stream-format=" + format +
                             ",alignment=au ! appsink name=out sync=false";
    m_encoder = gst_parse_launch(line.c_str(), nullptr);
    m_sink = gst_bin_get_by_name(GST_BIN(m_encoder), "out");
    gst_element_set_state(m_encoder, GST_STATE_PLAYING);
  }
  void EndEncoder() {
    gst_element_set_state(m_encoder, GST_STATE_NULL);
    gst_object_unref(m_sink);
    gst_object_unref(m_encoder);
  }
  /// The file of a clip that begins with the ring's entry `first`.
  std::string WriteClip(VideoPipelineElement& camera, unsigned int first) {
    VideoPipelineCollect collect(&camera, CameraType::Camera1, false);
    std::string path = m_dir + "clip" + std::to_string(first) + ".h264";
    FILE* file = std::fopen(path.c_str(), "wb");
    EXPECT_TRUE(collect.WriteHeader(file));
    for (unsigned int pos = first; pos < Frames; ++pos) {
      EXPECT_TRUE(collect.Write(file, camera.GetElementAt(pos).get()));
    }
    std::fclose(file);
    return path;
  }
  static std::size_t CountSets(const std::string& path) {
    const std::string text = Tavi::Testing::ReadFile(path);
    const KMedia::H264::Bytes bytes(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    KMedia::H264::NalUnit unit;
    std::size_t sets = 0;
    for (std::size_t offset = 0; KMedia::H264::NextNalUnit(bytes, offset, unit);) {
      sets += unit.type == NalType::Sps ? 1 : 0;
    }
    return sets;
  }

  GstElement* m_encoder = nullptr;
  GstElement* m_sink = nullptr;
};

struct Stripper {
  std::atomic<bool> hasLengths{false};
  std::atomic<bool> isFirst{true};
};

bool IsParameterSet(std::uint8_t header) {
  const auto type = static_cast<NalType>(header & 0x1F);
  return type == NalType::Sps || type == NalType::Pps;
}

std::string StripSets(KMedia::H264::Bytes bytes, bool hasLengths) {
  std::string kept;
  const auto keep = [&kept](KMedia::H264::Bytes nal) {
    kept.append(reinterpret_cast<const char*>(nal.data()), nal.size());
  };
  KMedia::H264::NalUnit unit;
  for (std::size_t offset = 0; !hasLengths && KMedia::H264::NextNalUnit(bytes, offset, unit);) {
    if (!IsParameterSet(unit.payload.front())) keep(unit.whole);
  }
  while (hasLengths && bytes.size() > 4) {
    const std::size_t size =
        4 + (std::size_t{bytes[0]} << 24 | std::size_t{bytes[1]} << 16 | std::size_t{bytes[2]} << 8 | bytes[3]);
    if (!IsParameterSet(bytes[4])) keep(bytes.first(size));
    bytes = bytes.subspan(size);
  }
  return kept;
}

/// Drops parameter sets from every access unit but a byte stream's first.
GstPadProbeReturn SendSetsOnce(GstPad*, GstPadProbeInfo* info, gpointer data) {
  auto* stripper = static_cast<Stripper*>(data);
  GstBuffer* buffer = GST_PAD_PROBE_INFO_BUFFER(info);
  if (stripper->isFirst.exchange(false) && !stripper->hasLengths) return GST_PAD_PROBE_OK;
  GstMapInfo map;
  gst_buffer_map(buffer, &map, GST_MAP_READ);
  GstBuffer* stripped =
      Tavi::Testing::MakeBuffer(StripSets({map.data, map.size}, stripper->hasLengths), GST_BUFFER_PTS(buffer),
                                !GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT));
  gst_buffer_unmap(buffer, &map);
  gst_buffer_unref(buffer);
  GST_PAD_PROBE_INFO_DATA(info) = stripped;
  return GST_PAD_PROBE_OK;
}

// Catches a clip that no player opens because it begins behind the only parameter sets, or whose units have lengths in
// place of start codes; and sets that are written twice where the encoder repeats them anyway.
TEST_F(StreamSetupTest, AClipBeginsWithParameterSetsWhereverTheEncoderHasThem) {
  struct Case {
    const char* format;
    bool once;
    std::size_t setsInFile;
  };
  Stripper stripper;
  for (const auto& [format, once, setsInFile] :
       {Case{"byte-stream", false, 2}, Case{"byte-stream", true, 1}, Case{"avc", true, 1}}) {
    stripper.hasLengths = std::string(format) == "avc";
    stripper.isFirst = true;
    StartEncoder(format);
    GstPad* pad = gst_element_get_static_pad(m_sink, "sink");
    if (once) gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, SendSetsOnce, &stripper, nullptr);
    gst_object_unref(pad);
    VideoConfig config;
    config.device = "sim:none";
    VideoPipelineElement camera(config, 2 * Frames);
    for (unsigned int i = 0; i < Frames; ++i) {
      GstVideoPipelineElement::SetEncodedFrameCallback(GST_APP_SINK(m_sink),
                                                       static_cast<GstVideoPipelineElement*>(&camera));
    }
    ASSERT_EQ(camera.GetCurrentFrameId(), Frames - 1);
    std::string path = WriteClip(camera, KeyInterval);
    EXPECT_EQ(CountSets(path), setsInFile) << format << once;
    std::string mp4;
    EXPECT_TRUE(VideoPipelineCollect::BuildMp4(path, 30.0F, mp4));
    const auto video = Tavi::Testing::DecodeVideo(mp4);
    EXPECT_EQ(video.frames.size(), Frames - KeyInterval) << format << once;
    EXPECT_EQ(video.decodeErrors, 0);
    EndEncoder();
  }
}

// Catches a walk beyond the end of damaged caps or lengths.
TEST_F(StreamSetupTest, DamagedSetsAndLengthsAreRefused) {
  StartEncoder("avc");
  GstSample* sample = gst_app_sink_pull_sample(GST_APP_SINK(m_sink));
  GstCaps* caps = gst_sample_get_caps(sample);
  const GValue* value = gst_structure_get_value(gst_caps_get_structure(caps, 0), "codec_data");
  GstBuffer* whole = gst_value_get_buffer(value);
  SetupTracker complete;
  complete.TakeCaps(caps);
  EXPECT_NE(complete.Follow(gst_sample_get_buffer(sample)), nullptr);
  for (gsize size = 0; size < gst_buffer_get_size(whole); ++size) {
    GstBuffer* cut = gst_buffer_copy_region(whole, GST_BUFFER_COPY_ALL, 0, size);
    GstCaps* damaged = gst_caps_copy(caps);
    gst_caps_set_simple(damaged, "codec_data", GST_TYPE_BUFFER, cut, nullptr);
    SetupTracker tracker;
    tracker.TakeCaps(damaged);
    const auto setup = tracker.Follow(gst_sample_get_buffer(sample));
    EXPECT_TRUE(setup == nullptr || setup->lengthSize == 4) << size;
    gst_caps_unref(damaged);
    gst_buffer_unref(cut);
  }
  const std::vector<std::uint8_t> tooLong{0, 0, 0, 9, 0x65, 1, 2};
  EXPECT_FALSE(WriteAccessUnit(stdout, tooLong, 4));
  EXPECT_FALSE(HasParameterSets(tooLong, 4));
  gst_sample_unref(sample);
  EndEncoder();
}

}  // namespace
