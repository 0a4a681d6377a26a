// The sources of a configuration and the ignition's lifecycle.
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>

#include "Ksystem/System/Reboot.h"
#include "Support/Media.h"
#include "Tavi/Pipeline/PipelineManager.h"
#include "Tavi/Testing/TestGstApi.h"
#include "Tavi/Video/VideoPipelineElement.h"

namespace {

using namespace Tavi::Pipeline;
using Tavi::Testing::CapturedOutput;
using Tavi::Testing::CountThreads;
using Tavi::Testing::WaitUntil;

class PipelineManagerTest : public Tavi::Testing::MediaTest {};

TEST_F(PipelineManagerTest, RingsHoldThirtyTwoSecondsOfTheirSource) {
  const PipelineConfig config = Tavi::Testing::BuildTestConfig();
  PipelineManager manager(config);
  const std::pair<PipelineType, unsigned int> sizes[] = {{PipelineType::Camera0, 480}, {PipelineType::Camera1, 960},
                                                         {PipelineType::Audio, 1225},  {PipelineType::Gps, 32},
                                                         {PipelineType::Acc, 320},     {PipelineType::Other, 32},
                                                         {PipelineType::Preview0, 18}, {PipelineType::Preview1, 18}};
  for (const auto& [type, size] : sizes) {
    ASSERT_NE(manager.GetPipelineElement(type), nullptr);
    EXPECT_EQ(manager.GetPipelineElement(type)->GetRingSize(), size);
  }
  PipelineConfig oneCamera;
  oneCamera.camera1Enabled = false;
  EXPECT_EQ(PipelineManager(oneCamera).GetPipelineElement(PipelineType::Preview1), nullptr)
      << "it goes with its camera";
}

TEST_F(PipelineManagerTest, StopGivesEveryElementAwayAndInitMakesNewOnes) {
  PipelineManager manager{PipelineConfig()};
  manager.Stop();
  EXPECT_NE(manager.GetPipelineElement(PipelineType::Camera0), nullptr) << "nothing was started, nothing stops";
  const std::weak_ptr<Kbase::Pipeline::IPipelineElement> camera = manager.ShareElement(PipelineType::Camera0);
  manager.Start();
  manager.RunSigInt();
  manager.Stop();
  EXPECT_TRUE(camera.expired());
  EXPECT_EQ(manager.GetPipelineElement(PipelineType::Camera0), nullptr);
  manager.Start();
  EXPECT_EQ(manager.GetGstPipeline(GstPipelineManager::GstPipelineType::Camera01Audio), nullptr);
  manager.Init();
  EXPECT_NE(manager.GetPipelineElement(PipelineType::Camera0), nullptr);
}

TEST_F(PipelineManagerTest, AnErrorRestartsTheUnitOnlyBetweenIgnitionOnAndOff) {
  for (const bool ignitionOff : {false, true}) {
    std::atomic<int> reboots{0};
    Ksystem::System::SetRebootHandler([&] { ++reboots; });
    PipelineConfig config;
    config.camera0Enabled = config.audioEnabled = false;
    config.camera1.device = "sim:camera0";
    CapturedOutput output;
    PipelineManager manager(config);
    manager.RunIgnitionStart();  // with camera 0 switched off nothing is supervised
    if (ignitionOff) manager.RunIgnitionOff();
    GstElement* pipeline = manager.GetGstPipeline(GstPipelineManager::GstPipelineType::Camera01Audio);
    GST_ELEMENT_ERROR(pipeline, RESOURCE, FAILED, ("the camera has died"), (nullptr));
    EXPECT_TRUE(output.WaitFor("ERROR:the camera has died\n"));
    EXPECT_TRUE(WaitUntil([] { return CountThreads("PIPELINE") == 0; }));
    EXPECT_EQ(reboots, ignitionOff ? 0 : 1);
    manager.Stop();
    Ksystem::System::SetRebootHandler({});
  }
}

// Catches a missing card, bus or port that holds the cameras up, and a silent receiver that nobody notices.
TEST_F(PipelineManagerTest, SensorsThatAreAbsentDoNotStopTheCamerasAndOnlyTheReceiverRestartsTheUnit) {
  std::ofstream(m_dir + "no-card.conf") << "pcm.!default { type hw card 77 }\n";
  setenv("ALSA_CONFIG_PATH", (m_dir + "no-card.conf").c_str(), 1);
  std::atomic<int> reboots{0};
  Ksystem::System::SetRebootHandler([&] { ++reboots; });
  PipelineConfig config;
  config.camera0.device = "sim:camera1";
  config.camera1.device = "sim:camera0";
  config.gps.path = m_dir + "none";
  /// Lets each second of the supervision pass once the cameras have started.
  class CamerasFirst final : public Kbase::Util::IClock {
   public:
    Milliseconds Now() override { return Steady().Now(); }
    void Sleep(Milliseconds) override {
      ++rounds;
      for (const auto camera : {PipelineType::Camera0, PipelineType::Camera1}) {
        EXPECT_TRUE(WaitUntil([&] { return manager->GetPipelineElement(camera)->IsDataAvailable(); }));
      }
    }
    PipelineManager* manager = nullptr;
    int rounds = 0;
  } clock;
  PipelineManager manager(config, clock);
  clock.manager = &manager;
  manager.RunIgnitionStart();
  EXPECT_EQ(clock.rounds, 50);
  EXPECT_EQ(reboots, 1);
  EXPECT_EQ(CountLogged("cannot be started"), 1);
  EXPECT_EQ(CountLogged("[ERROR][Tavi] Aquisition for gps cannot be started"), 1);
  EXPECT_EQ(CountLogged("the microphone cannot be opened"), 1);
  EXPECT_TRUE(WaitUntil([&] { return manager.GetPipelineElement(PipelineType::Other)->IsDataAvailable(); }));
  EXPECT_FALSE(manager.GetPipelineElement(PipelineType::Audio)->IsDataAvailable());
  manager.RunSigInt();
  Ksystem::System::SetRebootHandler({});
  unsetenv("ALSA_CONFIG_PATH");
}

TEST_F(PipelineManagerTest, ABranchWithoutItsPlugInIsSaidOnceAndNeverDelivers) {
  GstElement* pipeline = gst_pipeline_new("own");
  // Once loaded, a plug-in does not come back by itself.
  gst_object_unref(gst_object_ref_sink(gst_element_factory_make("imxvpuenc_h264", nullptr)));
  GstRegistry* registry = gst_registry_get();
  GstPluginFeature* encoder = gst_registry_lookup_feature(registry, "imxvpuenc_h264");
  ASSERT_NE(encoder, nullptr);
  gst_registry_remove_feature(registry, encoder);
  {
    Tavi::Video::VideoConfig config;
    Tavi::Video::VideoPipelineElement camera(pipeline, config, 10);
    EXPECT_EQ(GST_BIN_NUMCHILDREN(pipeline), 0);
    EXPECT_EQ(camera.GetRawFrame(), nullptr);
    camera.Start();
    camera.Stop();
  }
  EXPECT_EQ(CountLogged("GStreamer has no element \"imxvpuenc_h264\""), 1);
  gst_registry_add_feature(registry, encoder);
  gst_object_unref(encoder);
  gst_object_unref(pipeline);
}

}  // namespace
