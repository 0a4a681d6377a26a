// One camera's branch in a running pipeline: encoded, raw and preview frames, the gate, the crop and the live stream.
#include <arpa/inet.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <future>
#include <memory>
#include <tuple>
#include <utility>

#include "Support/Media.h"
#include "Tavi/Pipeline/PipelineManager.h"
#include "Tavi/Video/GstIpuFrame.h"
#include "Tavi/Video/PreviewPipelineElement.h"
#include "Tavi/Video/VideoPipelineCbElement.h"
#include "Tavi/Video/VideoPipelineElement.h"

namespace {

using namespace Tavi::Pipeline;
using namespace Tavi::Video;
using Tavi::Testing::WaitUntil;

class CameraTest : public Tavi::Testing::MediaTest {
 protected:
  static PipelineConfig OneCamera() {
    PipelineConfig config;
    config.camera0Enabled = config.audioEnabled = false;
    config.camera1.device = "sim:camera0";
    return config;
  }
  /// The left half dark and blue, the right half bright and red.
  static void PaintHalves(GstBuffer* buffer, const GstVideoInfo& info) {
    GstVideoFrame frame;
    ASSERT_TRUE(gst_video_frame_map(&frame, &info, buffer, GST_MAP_WRITE));
    const std::array<std::uint8_t, 3> left{40, 190, 100};
    const std::array<std::uint8_t, 3> right{200, 100, 210};
    for (guint part = 0; part < 3; ++part) {
      auto* data = static_cast<std::uint8_t*>(GST_VIDEO_FRAME_COMP_DATA(&frame, part));
      const int width = GST_VIDEO_FRAME_COMP_WIDTH(&frame, part);
      for (int y = 0; y < GST_VIDEO_FRAME_COMP_HEIGHT(&frame, part); ++y) {
        for (int x = 0; x < width; ++x) {
          data[y * GST_VIDEO_FRAME_COMP_STRIDE(&frame, part) + x * GST_VIDEO_FRAME_COMP_PSTRIDE(&frame, part)] =
              x < width / 2 ? left[part] : right[part];
        }
      }
    }
    gst_video_frame_unmap(&frame);
  }
  static GstElement* FindSource(const PipelineManager& manager) {
    const auto* pipeline = manager.GetGstPipeline(GstPipelineManager::GstPipelineType::Camera01Audio);
    for (GList* item = GST_BIN_CHILDREN(pipeline); item != nullptr; item = item->next) {
      auto* element = GST_ELEMENT(item->data);
      if (std::string(GST_OBJECT_NAME(gst_element_get_factory(element))) == "imxv4l2videosrc") return element;
    }
    return nullptr;
  }
  static std::shared_ptr<VideoPipelineElement> GetCamera(const PipelineManager& manager) {
    return std::dynamic_pointer_cast<VideoPipelineElement>(manager.ShareElement(PipelineType::Camera1));
  }
};

TEST_F(CameraTest, EncodedFramesHaveIdsKeyFramesAndTimesOnTheirGrid) {
  PipelineManager manager(OneCamera());
  manager.Start();
  const auto camera = GetCamera(manager);
  ASSERT_TRUE(WaitUntil([&] { return camera->GetCurrentFrameId() + 1 > 65; }));
  manager.RunIgnitionOff();
  GstClockTime before = 0;
  for (unsigned int pos = 0; pos < 65; ++pos) {
    const auto entry = std::dynamic_pointer_cast<VideoPipelineCbElement>(camera->GetElementAt(pos));
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->frameId, pos);
    EXPECT_EQ(entry->IsKeyFrame(), pos % 30 == 0) << pos;
    EXPECT_EQ(entry->cameraName, "camera0");
    const GstClockTime time = GST_BUFFER_PTS(entry->buffer);
    if (pos > 0) {
      EXPECT_NEAR(static_cast<double>(time - before), 1e9 / 30, 1e6);
    }
    before = time;
  }
  EXPECT_EQ(CountLogged("Aquisition for camera0 has been started"), 1);
  EXPECT_EQ(CountLogged("Aquisition for preview camera0 has been started"), 1);
}

/// Counts what a pad hands on.
GstPadProbeReturn CountBuffers(GstPad*, GstPadProbeInfo*, gpointer counter) {
  ++*static_cast<std::atomic<int>*>(counter);
  return GST_PAD_PROBE_OK;
}

// Catches a gate that is open from the start or stays open: the source behind it is seen to deliver all the time.
TEST_F(CameraTest, AStoppedCameraDeliversNothingUntilItIsStartedAgain) {
  PipelineManager manager(OneCamera());
  const auto camera = GetCamera(manager);
  std::atomic<int> captured{0};
  const auto capturesMore = [&captured](int count) {
    return WaitUntil([&captured, enough = captured + count] { return captured >= enough; });
  };
  auto* pipeline = manager.GetGstPipeline(GstPipelineManager::GstPipelineType::Camera01Audio);
  gst_element_set_state(pipeline, GST_STATE_READY);  // the source makes its scene
  GstElement* scene = gst_bin_get_by_name(GST_BIN(pipeline), "scene");
  ASSERT_NE(scene, nullptr);
  GstPad* pad = gst_element_get_static_pad(scene, "src");
  gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, CountBuffers, &captured, nullptr);
  manager.GstPipelineManager::Start();
  ASSERT_TRUE(capturesMore(15));
  EXPECT_FALSE(camera->IsDataAvailable());
  camera->Start();
  EXPECT_TRUE(WaitUntil([&] { return camera->IsDataAvailable(); }));
  camera->Stop();
  ASSERT_TRUE(capturesMore(10));  // what was on its way has come
  const auto last = camera->GetCurrentFrameId();
  ASSERT_TRUE(capturesMore(15));
  EXPECT_EQ(camera->GetCurrentFrameId(), last);
  camera->Start();
  EXPECT_TRUE(WaitUntil([&] { return camera->GetCurrentFrameId() > last + 5; }));
  manager.Stop();
  gst_object_unref(pad);
  gst_object_unref(scene);
}

TEST_F(CameraTest, RawFramesAreScaledWithoutACopyAndPreviewsComeAtTheirOwnRate) {
  PipelineManager manager(OneCamera());
  manager.Start();
  const auto camera = GetCamera(manager);
  std::vector<std::uint8_t> pixels(KMedia::ImgUtils::I420Layout(280, 160).size);
  KMedia::ImgUtils::KframeBuffer target;
  target.data = pixels.data();
  target.size = pixels.size();
  target.width = 280;
  target.height = 160;
  std::unique_ptr<GstIpuFrame> frame;
  EXPECT_TRUE(WaitUntil([&] {
    frame.reset(camera->GetIpuFrame());
    if (!frame || !frame->RenderFrame(&target)) return false;
    const auto [darkest, brightest] = std::minmax_element(pixels.begin(), pixels.begin() + 280 * 160);
    return *brightest - *darkest > 40;
  })) << "a scene within a flash's length, not a blank picture";
  auto* raw = frame->GetRawFrame();
  ASSERT_NE(raw, nullptr);
  EXPECT_EQ(raw->size, 1280U * 720 * 3 / 2);
  frame->ClearRawFrame();
  EXPECT_EQ(GstIpuFrame::Create(nullptr, 1280, 720), nullptr);
  auto* preview = manager.GetPipelineElement(PipelineType::Preview1);
  ASSERT_TRUE(WaitUntil([&] { return preview->IsDataAvailable() && preview->GetCurrentFrameId() >= 4; }));
  const auto first = std::dynamic_pointer_cast<PreviewPipelineCbElement>(preview->GetElementAt(0));
  const auto second = std::dynamic_pointer_cast<PreviewPipelineCbElement>(preview->GetElementAt(1));
  EXPECT_EQ(gst_buffer_get_size(first->buffer), 320U * 176 * 3 / 2);
  EXPECT_NEAR(static_cast<double>(GST_BUFFER_PTS(second->buffer) - GST_BUFFER_PTS(first->buffer)), 1e9 / 3, 4e7);
}

TEST_F(CameraTest, StoppingWakesARawFramePullThatWaits) {
  PipelineManager manager(OneCamera());
  manager.GstPipelineManager::Start();  // the camera's own gate stays closed: no frame ever comes
  auto camera = GetCamera(manager);
  std::atomic<bool> pulling{false};
  auto pull = std::async(std::launch::async, [&, camera] {
    pulling = true;
    return camera->GetRawFrame();
  });
  ASSERT_TRUE(WaitUntil([&] { return pulling.load(); }));
  EXPECT_EQ(pull.wait_for(std::chrono::milliseconds(300)), std::future_status::timeout);
  camera.reset();
  manager.Stop();
  ASSERT_EQ(pull.wait_for(std::chrono::seconds(30)), std::future_status::ready);
  EXPECT_EQ(pull.get(), nullptr);
}

TEST_F(CameraTest, TheLiveStreamOfACroppedCameraIsServedFramedOnItsPort) {
  auto config = OneCamera();
  config.camera1.cropEnabled = true;
  config.camera1.streamEnabled = true;
  config.camera1.streamPort = 19000 + getpid() % 10000;
  PipelineManager manager(config);
  manager.Start();
  ASSERT_TRUE(WaitUntil([&] { return manager.GetPipelineElement(PipelineType::Camera1)->IsDataAvailable(); }));
  GstBuffer* frame = GetCamera(manager)->GetRawFrame();
  EXPECT_EQ(gst_buffer_get_size(frame), 1280U * 720 * 3 / 2) << "a crop keeps the frame size";
  gst_buffer_unref(frame);
  for (const auto& [property, expected] : {std::pair("crop-meta-x", 72), std::pair("crop-meta-y", 8),
                                           std::pair("crop-meta-width", 1176), std::pair("crop-meta-height", 664)}) {
    int value = -1;
    g_object_get(FindSource(manager), property, &value, nullptr);
    EXPECT_EQ(value, expected) << property;
  }
  const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(config.camera1.streamPort));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(connect(client, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  std::string received;
  char block[65536];
  while (received.size() < 20000) {
    const ssize_t n = read(client, block, sizeof(block));
    ASSERT_GT(n, 0);
    received.append(block, static_cast<std::size_t>(n));
  }
  close(client);
  EXPECT_EQ(received.substr(0, 2), std::string("\x01\x00", 2)) << "GStreamer data protocol, version 1.0";
  EXPECT_NE(received.find("video/x-h264"), std::string::npos);
}

// Catches an optional plug-in, or a port that somebody else has, that takes the camera along.
TEST_F(CameraTest, WhatOnlyTheLiveStreamOrThePreviewNeedsTakesOnlyThatAlong) {
  GstRegistry* registry = gst_registry_get();
  for (const char* factory : {"gdppay", "tcpserversink", "videorate"}) {
    const bool isPreview = std::string(factory) == "videorate";
    // Once loaded, a plug-in does not come back by itself.
    gst_object_unref(gst_object_ref_sink(gst_element_factory_make(factory, nullptr)));
    GstPluginFeature* feature = gst_registry_lookup_feature(registry, factory);
    gst_registry_remove_feature(registry, feature);
    auto config = OneCamera();
    config.camera1.streamEnabled = true;
    config.camera1.streamPort = 19000 + getpid() % 10000;
    ClearLog();
    PipelineManager manager(config);
    EXPECT_EQ(CountLogged(std::string("no element \"") + factory), 1);
    EXPECT_EQ(CountLogged(isPreview ? "there is no preview" : "there is no live stream"), 1);
    EXPECT_EQ(CountLogged("GStreamer"), 1);
    manager.Start();
    EXPECT_TRUE(WaitUntil([&] { return GetCamera(manager)->IsDataAvailable(); })) << factory;
    if (!isPreview) {
      const auto* preview = manager.GetPipelineElement(PipelineType::Preview1);
      EXPECT_TRUE(WaitUntil([&] { return preview->IsDataAvailable(); })) << factory;
    }
    gst_registry_add_feature(registry, feature);
    gst_object_unref(feature);
  }
  auto config = OneCamera();
  config.camera1.streamEnabled = true;
  const int other = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  socklen_t size = sizeof(address);
  ASSERT_EQ(bind(other, reinterpret_cast<sockaddr*>(&address), size), 0);
  ASSERT_EQ(listen(other, 1), 0);
  ASSERT_EQ(getsockname(other, reinterpret_cast<sockaddr*>(&address), &size), 0);
  config.camera1.streamPort = ntohs(address.sin_port);
  PipelineManager manager(config);
  EXPECT_EQ(CountLogged("there is no live stream on port " + std::to_string(config.camera1.streamPort)), 1);
  manager.Start();
  EXPECT_TRUE(WaitUntil([&] { return GetCamera(manager)->IsDataAvailable(); })) << "the port is taken";
  close(other);
}

// Catches a thumbnail that is sheared, tinted or black because the hardware pads its lines or delivers another format.
TEST_F(CameraTest, ARawFrameIsReadAsItsCapsAndItsMetaSay) {
  constexpr guint Width = 64;
  constexpr guint Height = 32;
  struct Case {
    GstVideoFormat format;
    guint padding;
  };
  for (const auto& [format, padding] :
       {Case{GST_VIDEO_FORMAT_I420, 0}, Case{GST_VIDEO_FORMAT_I420, 48}, Case{GST_VIDEO_FORMAT_NV12, 0},
        Case{GST_VIDEO_FORMAT_NV12, 32}, Case{GST_VIDEO_FORMAT_YUY2, 0}}) {
    GstVideoInfo info;
    gst_video_info_set_format(&info, format, Width, Height);
    GstVideoInfo stored;
    gst_video_info_set_format(&stored, format, Width + padding, Height + padding);
    GstBuffer* buffer = gst_buffer_new_allocate(nullptr, stored.size, nullptr);
    gst_buffer_memset(buffer, 0, 255, stored.size);
    gst_buffer_add_video_meta_full(buffer, GST_VIDEO_FRAME_FLAG_NONE, format, Width, Height, stored.finfo->n_planes,
                                   stored.offset, stored.stride);
    PaintHalves(buffer, info);
    GstCaps* caps = gst_video_info_to_caps(&info);
    GstSample* sample = gst_sample_new(buffer, caps, nullptr, nullptr);
    const std::unique_ptr<GstIpuFrame> frame(GstIpuFrame::Create(sample, {1, 1}));
    ASSERT_NE(frame, nullptr);
    const auto* raw = frame->GetRawFrame();
    const KMedia::ImgUtils::I420Layout layout(Width, Height);
    ASSERT_EQ(raw->size, layout.size);
    for (guint y = 0; y < Height; ++y) {
      EXPECT_EQ(raw->data[y * layout.lumaStride + 2], 40) << "dark and blue on the left, line " << y;
      EXPECT_EQ(raw->data[y * layout.lumaStride + Width - 3], 200) << "bright and red on the right, line " << y;
      const auto chroma = y / 2 * layout.chromaStride;
      const auto right = layout.vOffset + chroma + Width / 2 - 3;
      EXPECT_NEAR(raw->data[layout.uOffset + chroma + 2], 190, 1);
      EXPECT_NEAR(raw->data[right], 210, 1);
    }
    frame->ClearRawFrame();
    gst_sample_unref(sample);
    gst_caps_unref(caps);
    gst_buffer_unref(buffer);
  }
}

// Catches a pipeline that plays on behind its camera, and names that do not cross over: camera type 0 is "camera1".
TEST_F(CameraTest, ACameraInItsOwnPipelineEndsWithIt) {
  for (const auto& [type, name, preview] : {std::tuple(CameraType::Camera0, std::string("camera1"), "preview1"),
                                            std::tuple(CameraType::Camera1, std::string("camera0"), "preview0")}) {
    VideoConfig config;
    config.cameraType = type;
    config.device = "sim:alone";
    PreviewPipelineElement previews(config, 18);
    auto camera = std::make_unique<VideoPipelineElement>(config, 30);
    camera->SetPreviewElement(&previews);
    camera->Start();
    EXPECT_EQ(camera->GetRawFrame(), nullptr) << "the pipeline does not run";
    GstElement* pipeline = camera->GetOwnPipeline();
    ASSERT_NE(pipeline, nullptr);
    EXPECT_EQ(GST_OBJECT_NAME(pipeline), name + "-pipeline");
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    ASSERT_TRUE(WaitUntil([&] { return camera->IsDataAvailable() && previews.IsDataAvailable(); }));
    const auto entry = std::dynamic_pointer_cast<VideoPipelineCbElement>(camera->RetrieveCurrent());
    EXPECT_EQ(entry->cameraName, name);
    EXPECT_EQ(entry->name, name);
    EXPECT_EQ(std::dynamic_pointer_cast<PreviewPipelineCbElement>(previews.RetrieveCurrent())->name, preview);
    const std::string line = "Aquisition for " + name + " has been started";
    EXPECT_TRUE(WaitUntil([&] { return CountLogged(line) == 1; }));
    g_object_add_weak_pointer(G_OBJECT(pipeline), reinterpret_cast<gpointer*>(&pipeline));
    camera.reset();
    EXPECT_EQ(pipeline, nullptr) << "it is gone with its camera";
  }
  VideoPipelineElement camera(VideoConfig(), 30);
  GstBuffer* frame = gst_buffer_ref(Tavi::Testing::MakeBuffer("frame", 0));
  camera.SetPreviewFrame(frame);
  EXPECT_EQ(GST_MINI_OBJECT_REFCOUNT_VALUE(frame), 1) << "without a preview element nobody keeps it";
  gst_buffer_unref(frame);
  camera.SetEncodedFrame(nullptr);
  EXPECT_FALSE(camera.IsDataAvailable());
}

}  // namespace
