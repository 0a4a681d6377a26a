// One camera's branch in a running pipeline: encoded, raw and preview frames, the gate, the crop and the live stream.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <future>
#include <memory>

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

TEST_F(CameraTest, AStoppedCameraDeliversNothingUntilItIsStartedAgain) {
  PipelineManager manager(OneCamera());
  const auto camera = GetCamera(manager);
  manager.GstPipelineManager::Start();
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_FALSE(camera->IsDataAvailable());
  camera->Start();
  EXPECT_TRUE(WaitUntil([&] { return camera->IsDataAvailable(); }));
  camera->Stop();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  const auto last = camera->GetCurrentFrameId();
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(camera->GetCurrentFrameId(), last);
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
  ASSERT_EQ(pull.wait_for(std::chrono::seconds(5)), std::future_status::ready);
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

TEST_F(CameraTest, ACameraInItsOwnPipelineEndsWithIt) {
  VideoConfig config;
  config.device = "sim:alone";
  VideoPipelineElement camera(config, 30);
  camera.Start();
  EXPECT_EQ(camera.GetRawFrame(), nullptr) << "the pipeline does not run";
  GstBuffer* frame = gst_buffer_ref(Tavi::Testing::MakeBuffer("frame", 0));
  camera.SetPreviewFrame(frame);
  EXPECT_EQ(GST_MINI_OBJECT_REFCOUNT_VALUE(frame), 1) << "without a preview element nobody keeps it";
  gst_buffer_unref(frame);
  camera.SetEncodedFrame(nullptr);
  EXPECT_FALSE(camera.IsDataAvailable());
}

}  // namespace
