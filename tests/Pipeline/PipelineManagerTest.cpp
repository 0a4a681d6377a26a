// The sources of a configuration and the ignition's lifecycle.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "Ksystem/System/Reboot.h"
#include "Pipeline/PipelineFixture.h"
#include "Simulator/SimulatedCar.h"
#include "Tavi/EventCollect/PipelineCollectManager.h"
#include "Tavi/Pipeline/PipelineManager.h"
#include "Tavi/Testing/TestGstApi.h"
#include "Tavi/Video/VideoPipelineElement.h"

namespace {

using namespace Tavi::Pipeline;
using Tavi::Testing::CapturedOutput;
using Tavi::Testing::CountThreads;
using Tavi::Testing::WaitUntil;

class PipelineManagerTest : public Tavi::Testing::PipelineFixture {};

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
  const Tavi::Simulator::SimulatedCar car;
  ASSERT_EQ(car.GetProblem(), "");
  PipelineConfig config;
  config.camera0.device = "sim:camera1";
  config.camera1.device = "sim:camera0";
  config.gps.path = car.GetGpsPath();
  PipelineManager manager(config);
  manager.Stop();
  EXPECT_NE(manager.GetPipelineElement(PipelineType::Camera0), nullptr) << "nothing was started, nothing stops";
  std::vector<std::weak_ptr<Kbase::Pipeline::IPipelineElement>> elements;
  for (int type = 0; type < 8; ++type) elements.push_back(manager.ShareElement(static_cast<PipelineType>(type)));
  manager.Start();
  for (const auto& element : elements) {
    EXPECT_TRUE(WaitUntil([&] { return element.lock()->IsDataAvailable(); })) << "of the simulated car, not a device";
  }
  manager.RunSigInt();
  manager.Stop();
  for (const auto& element : elements) EXPECT_TRUE(element.expired());
  EXPECT_EQ(manager.GetPipelineElement(PipelineType::Camera0), nullptr);
  manager.Start();
  EXPECT_EQ(manager.GetGstPipeline(Shared), nullptr);
  manager.Init();
  EXPECT_NE(manager.GetPipelineElement(PipelineType::Camera0), nullptr);
}

// Catches a unit that restarts while it saves an event, because its cameras die with the power or with the stop.
TEST_F(PipelineManagerTest, AnErrorRestartsTheUnitOnlyUntilIgnitionOffAStopOrAPowerFailure) {
  using Tavi::PipelineCollect::PipelineCollectManager;
  struct Case {
    int reboots;
    std::function<void(PipelineManager&, PipelineCollectManager&)> before;
  };
  const Case cases[] = {{1, [](auto&, auto&) {}},
                        {0, [](auto& manager, auto&) { manager.RunIgnitionOff(); }},
                        {0, [](auto& manager, auto&) { manager.EndSupervision(); }},
                        {0, [](auto&, auto& collects) { collects.PowerFailure(); }},
                        {0,
                         [](auto& manager, auto& collects) {
                           collects.PowerFailure();
                           manager.RunIgnitionStart();  // asked for before, and done only now
                         }},
                        {1, [](auto& manager, auto& collects) {
                           collects.PowerFailure();
                           manager.Stop();
                           manager.Init();
                           manager.RunIgnitionStart();  // the power was back, all begins anew
                         }}};
  for (const auto& [expected, before] : cases) {
    std::atomic<int> reboots{0};
    Ksystem::System::SetRebootHandler([&] { ++reboots; });
    CapturedOutput output;
    PipelineManager manager(OneCamera());
    Tavi::PipelineCollect::PipelineCollectManagerConfig config;
    config.pipelineManager = &manager;
    config.workDir = config.backupDir = m_dir;
    PipelineCollectManager collects(config);
    manager.RunIgnitionStart();  // with camera 0 switched off nothing is supervised
    before(manager, collects);
    GST_ELEMENT_ERROR(manager.GetGstPipeline(Shared), RESOURCE, FAILED, ("the camera has died"), (nullptr));
    EXPECT_TRUE(output.WaitFor("ERROR:the camera has died\n"));
    EXPECT_TRUE(WaitUntil([] { return CountThreads("PIPELINE") == 0; }));
    EXPECT_EQ(reboots, expected);
    manager.Stop();
    Ksystem::System::SetRebootHandler({});
  }
}

// Catches a supervision that goes on for its 50 seconds over a stop, keeps what was stopped, or restarts a stopped
// unit.
TEST_F(PipelineManagerTest, AStopEndsTheSupervisionAndAStoppedManagerIsNeverArmed) {
  std::atomic<int> reboots{0};
  Ksystem::System::SetRebootHandler([&] { ++reboots; });
  auto config = OneCamera();
  config.camera0Enabled = config.gpsEnabled = true;
  config.camera0.device = "sim:camera1";
  config.gps.path = m_dir + "none";
  Tavi::Testing::Pauses clock;
  CapturedOutput output;
  PipelineManager manager(config, clock);
  clock.pause = [&] {
    if (clock.count != 3) return;
    const std::weak_ptr<Kbase::Pipeline::IPipelineElement> camera = manager.ShareElement(PipelineType::Camera1);
    manager.RunSigInt();
    EXPECT_TRUE(camera.expired()) << "the supervision only looks";
  };
  manager.RunIgnitionStart();
  EXPECT_EQ(clock.count, 3);
  EXPECT_EQ(CountLogged("cannot be started"), 0);
  manager.RunIgnitionStart();
  manager.Init();
  manager.Start();
  GST_ELEMENT_ERROR(manager.GetGstPipeline(Shared), RESOURCE, FAILED, ("the camera has died"), (nullptr));
  EXPECT_TRUE(output.WaitFor("ERROR:the camera has died\n"));
  EXPECT_TRUE(WaitUntil([] { return CountThreads("PIPELINE") == 0; }));
  EXPECT_EQ(reboots, 0) << "the ignition was on for a stopped manager only";
  manager.Stop();
  Ksystem::System::SetRebootHandler({});
}

// Catches an element map that one thread fills while the other empties it.
TEST_F(PipelineManagerTest, AnInterruptAtAnyMomentOfTheStartLeavesAWholeManager) {
  PipelineConfig config;
  config.camera0Enabled = config.camera1Enabled = config.audioEnabled = config.gpsEnabled = config.accEnabled = false;
  PipelineManager manager(config);
  std::atomic<bool> ended{false};
  std::thread interrupts([&] {
    while (!ended) manager.RunSigInt();
  });
  for (int i = 0; i < 200; ++i) {
    manager.Init();
    manager.RunIgnitionStart();
  }
  ended = true;
  interrupts.join();
  manager.Stop();
  manager.Init();
  manager.Start();
  EXPECT_TRUE(WaitUntil([&] { return manager.GetPipelineElement(PipelineType::Other)->IsDataAvailable(); }));
  EXPECT_EQ(CountThreads("TIMER"), 1);
}

// Catches a failed look for the microphone that ends the watch over the cameras, or restarts the unit.
TEST_F(PipelineManagerTest, AMissingMicrophoneNeitherRestartsTheUnitNorEndsTheWatch) {
  std::ofstream(m_dir + "no-card.conf") << "pcm.!default { type hw card 77 }\n";
  setenv("ALSA_CONFIG_PATH", (m_dir + "no-card.conf").c_str(), 1);
  std::atomic<int> reboots{0};
  Ksystem::System::SetRebootHandler([&] { ++reboots; });
  auto config = OneCamera();
  config.audioEnabled = true;
  CapturedOutput output;
  PipelineManager manager(config);
  manager.RunIgnitionStart();
  EXPECT_TRUE(WaitUntil([&] { return manager.GetPipelineElement(PipelineType::Camera1)->IsDataAvailable(); }));
  EXPECT_EQ(CountLogged("the microphone cannot be opened"), 1);
  EXPECT_EQ(output.GetText(), "");
  EXPECT_EQ(CountThreads("PIPELINE"), 1) << "the watch goes on";
  EXPECT_EQ(reboots, 0);
  GST_ELEMENT_ERROR(manager.GetGstPipeline(Shared), RESOURCE, FAILED, ("the camera has died"), (nullptr));
  EXPECT_TRUE(output.WaitFor("ERROR:the camera has died\n"));
  EXPECT_TRUE(WaitUntil([&] { return reboots == 1; }));
  manager.Stop();
  Ksystem::System::SetRebootHandler({});
  unsetenv("ALSA_CONFIG_PATH");
}

// Catches a second start that starts the sources once more: their time would begin at 0 within the ring.
TEST_F(PipelineManagerTest, ASecondStartDoesNothing) {
  PipelineConfig config;
  config.camera0Enabled = config.camera1Enabled = config.audioEnabled = config.gpsEnabled = config.accEnabled = false;
  PipelineManager manager(config);
  manager.Start();
  const auto other = manager.ShareElement(PipelineType::Other);
  ASSERT_TRUE(WaitUntil([&] { return other->IsDataAvailable(); }));
  manager.Start();
  const auto id = other->GetCurrentFrameId();
  ASSERT_TRUE(WaitUntil([&] { return other->GetCurrentFrameId() > id; }));
  ExpectInOrder(*other);
  EXPECT_GE(
      GST_BUFFER_PTS(std::dynamic_pointer_cast<Tavi::GstUtil::GstPipelineCbElement>(other->RetrieveCurrent())->buffer),
      GST_SECOND);
  EXPECT_EQ(CountThreads("PIPELINE"), 1);
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
  Tavi::Testing::Pauses clock;
  PipelineManager manager(config, clock);
  clock.pause = [&] {
    for (const auto camera : {PipelineType::Camera0, PipelineType::Camera1}) {
      EXPECT_TRUE(WaitUntil([&] { return manager.GetPipelineElement(camera)->IsDataAvailable(); }));
    }
  };
  manager.RunIgnitionStart();
  EXPECT_EQ(clock.count, 50);
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
