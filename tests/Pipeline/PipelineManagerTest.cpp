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
#include "Simulator/SimulatedCar.h"
#include "Support/Media.h"
#include "Tavi/EventCollect/PipelineCollectManager.h"
#include "Tavi/Pipeline/PipelineManager.h"
#include "Tavi/Testing/TestGstApi.h"
#include "Tavi/Video/VideoPipelineElement.h"

namespace {

using namespace Tavi::Pipeline;
using Tavi::Testing::CapturedOutput;
using Tavi::Testing::CountThreads;
using Tavi::Testing::WaitUntil;

constexpr auto Shared = GstPipelineManager::GstPipelineType::Camera01Audio;

class PipelineManagerTest : public Tavi::Testing::MediaTest {
 protected:
  /// One simulated camera and no device.
  static PipelineConfig OneCamera() {
    PipelineConfig config;
    config.camera0Enabled = config.audioEnabled = config.gpsEnabled = config.accEnabled = false;
    config.camera1.device = "sim:camera0";
    return config;
  }
};

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
  class StopInTheThirdRound final : public Kbase::Util::IClock {
   public:
    Milliseconds Now() override { return Steady().Now(); }
    void Sleep(Milliseconds) override {
      if (++rounds != 3) return;
      const std::weak_ptr<Kbase::Pipeline::IPipelineElement> camera = manager->ShareElement(PipelineType::Camera1);
      manager->RunSigInt();
      EXPECT_TRUE(camera.expired()) << "the supervision only looks";
    }
    PipelineManager* manager = nullptr;
    int rounds = 0;
  } clock;
  CapturedOutput output;
  PipelineManager manager(config, clock);
  clock.manager = &manager;
  manager.RunIgnitionStart();
  EXPECT_EQ(clock.rounds, 3);
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

GstPadProbeReturn DropWhile(GstPad*, GstPadProbeInfo*, gpointer isStalled) {
  return *static_cast<std::atomic<bool>*>(isStalled) ? GST_PAD_PROBE_DROP : GST_PAD_PROBE_OK;
}

/// The pipeline's elements of one kind.
std::vector<GstElement*> FindElements(GstElement* pipeline, const std::string& factory) {
  std::vector<GstElement*> found;
  for (GList* item = GST_BIN_CHILDREN(pipeline); item != nullptr; item = item->next) {
    auto* element = GST_ELEMENT(item->data);
    if (factory == GST_OBJECT_NAME(gst_element_get_factory(element))) found.push_back(element);
  }
  return found;
}

GstElement* FindCamera(GstElement* pipeline, const std::string& device) {
  for (GstElement* source : FindElements(pipeline, "imxv4l2videosrc")) {
    gchar* name = nullptr;
    g_object_get(source, "device", &name, nullptr);
    const bool isFound = device == name;
    g_free(name);
    if (isFound) return source;
  }
  return nullptr;
}

/// Ids without a gap, and time stamps that never run back, over everything that the ring has.
void ExpectInOrder(Kbase::Pipeline::IPipelineElement& ring) {
  GstClockTime before = 0;
  const std::uint64_t newest = ring.GetCurrentFrameId();
  for (std::uint64_t id = 0; id <= newest; ++id) {
    const auto entry = std::dynamic_pointer_cast<Tavi::GstUtil::GstPipelineCbElement>(
        ring.GetElementAt(static_cast<unsigned int>(id)));
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->frameId, id);
    EXPECT_GE(GST_BUFFER_PTS(entry->buffer), before) << id;
    before = GST_BUFFER_PTS(entry->buffer);
  }
}

// Catches a camera that keeps the other one from delivering, and lines that name the camera that runs: the numbers that
// people know cross over against the keys.
TEST_F(PipelineManagerTest, TheSupervisionNamesTheCameraThatIsSilent) {
  for (const bool second : {false, true}) {
    std::atomic<int> reboots{0};
    Ksystem::System::SetRebootHandler([&] { ++reboots; });
    ClearLog();
    auto config = OneCamera();
    config.camera0Enabled = config.gpsEnabled = true;
    config.camera0.device = "sim:camera1";
    config.gps.path = m_dir + "none";
    const PipelineType silent = second ? PipelineType::Camera1 : PipelineType::Camera0;
    const PipelineType running = second ? PipelineType::Camera0 : PipelineType::Camera1;
    class UntilDelivered final : public Kbase::Util::IClock {
     public:
      Milliseconds Now() override { return Steady().Now(); }
      void Sleep(Milliseconds) override { EXPECT_TRUE(WaitUntil([this] { return ring->IsDataAvailable(); })); }
      std::shared_ptr<Kbase::Pipeline::IPipelineElement> ring;
    } clock;
    std::atomic<bool> stalled{true};
    PipelineManager manager(config, clock);
    clock.ring = manager.ShareElement(running);
    GstElement* pipeline = manager.GetGstPipeline(Shared);
    GstPad* pad = gst_element_get_static_pad(FindCamera(pipeline, second ? "sim:camera0" : "sim:camera1"), "src");
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, DropWhile, &stalled, nullptr);
    gst_object_unref(pad);
    manager.RunIgnitionStart();
    EXPECT_EQ(reboots, 1);
    EXPECT_FALSE(manager.GetPipelineElement(silent)->IsDataAvailable());
    EXPECT_EQ(CountLogged("Aquisition for camera 1 cannot be started"), second ? 0 : 1);
    EXPECT_EQ(CountLogged("Aquisition for camera 0 cannot be started"), second ? 1 : 0);
    EXPECT_EQ(CountLogged("Aquisition for gps cannot be started"), 1);
    manager.Stop();
    Ksystem::System::SetRebootHandler({});
  }
}

// Catches entries that wait for the slowest branch's latency, which is longer than what a sound card holds.
TEST_F(PipelineManagerTest, ASlowCameraCostsNoSound) {
  const Tavi::Simulator::SimulatedCar car;
  auto config = OneCamera();
  config.audioEnabled = true;
  config.camera1.fps = 3;
  PipelineManager manager(config);
  manager.Start();
  const auto sound = manager.ShareElement(PipelineType::Audio);
  ASSERT_TRUE(WaitUntil([&] { return sound->IsDataAvailable(); }));
  const auto stampAt = [&](unsigned int id) {
    return GST_BUFFER_PTS(
        std::dynamic_pointer_cast<Tavi::GstUtil::GstPipelineCbElement>(sound->GetElementAt(id))->buffer);
  };
  ASSERT_TRUE(WaitUntil([&] { return sound->GetCurrentFrameId() >= 80; }));
  const GstClockTime heard = stampAt(80) - stampAt(0);
  EXPECT_NEAR(static_cast<double>(heard) / GST_SECOND, 80 / config.audio.frameRate, 0.1);
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

// Catches a silent source that nobody starts again, a restart that takes the others along or begins a ring anew, time
// that runs back over it, and an event clock that loses the gap.
TEST_F(PipelineManagerTest, ASilentSourceIsStartedAnewAndTheRingsGoOn) {
  const Tavi::Simulator::SimulatedCar car;
  auto config = OneCamera();
  config.camera0Enabled = config.audioEnabled = true;
  config.camera0.device = "sim:camera1";
  config.restartAfterSeconds = 2;
  PipelineManager manager(config);
  manager.Start();
  const auto ring = [&](PipelineType type) { return manager.ShareElement(type); };
  const auto enough = [&](PipelineType type, std::uint64_t id) {
    return WaitUntil([&] { return ring(type)->IsDataAvailable() && ring(type)->GetCurrentFrameId() >= id; });
  };
  for (const auto type : {PipelineType::Camera0, PipelineType::Camera1, PipelineType::Audio}) {
    ASSERT_TRUE(enough(type, 20));
  }
  const auto& stalling = [&](GstElement* source, PipelineType type, const char* name) {
    std::atomic<bool> stalled{true};
    GstPad* pad = gst_element_get_static_pad(source, "src");
    const gulong probe = gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, DropWhile, &stalled, nullptr);
    EXPECT_TRUE(WaitUntil([&] { return CountLogged(std::string(name) + " has been silent for ") == 1; })) << name;
    stalled = false;
    EXPECT_TRUE(enough(type, ring(type)->GetCurrentFrameId() + 20)) << name;
    EXPECT_TRUE(WaitUntil([&] { return CountLogged(std::string(name) + " delivers again, after 1 restart") == 1; }));
    gst_pad_remove_probe(pad, probe);
    gst_object_unref(pad);
  };
  GstElement* pipeline = manager.GetGstPipeline(Shared);
  stalling(FindCamera(pipeline, "sim:camera0"), PipelineType::Camera1, "camera0");
  const auto other = ring(PipelineType::Camera0)->GetCurrentFrameId();
  stalling(FindElements(pipeline, "alsasrc").front(), PipelineType::Audio, "audio");
  EXPECT_TRUE(enough(PipelineType::Camera0, other + 15));
  EXPECT_EQ(CountLogged("camera1 has been silent"), 0) << "the other camera is not touched";
  for (const auto type : {PipelineType::Camera0, PipelineType::Camera1, PipelineType::Audio})
    ExpectInOrder(*ring(type));
  const auto newest = [&](PipelineType type) {
    return GST_BUFFER_PTS(
        std::dynamic_pointer_cast<Tavi::GstUtil::GstPipelineCbElement>(ring(type)->RetrieveCurrent())->buffer);
  };
  EXPECT_LT(std::llabs(GST_CLOCK_DIFF(newest(PipelineType::Audio), newest(PipelineType::Camera0))), GST_SECOND / 2);
  EXPECT_EQ(CountThreads("PIPELINE"), 1);
}

// Catches an ignition that arms a pipeline which an error has ended, and a loop that nobody runs any more.
TEST_F(PipelineManagerTest, IgnitionOnStartsAgainWhatAnErrorHasEnded) {
  std::atomic<int> reboots{0};
  Ksystem::System::SetRebootHandler([&] { ++reboots; });
  CapturedOutput output;
  PipelineManager manager(OneCamera());
  manager.RunIgnitionStart();
  manager.RunIgnitionOff();
  const auto camera = manager.ShareElement(PipelineType::Camera1);
  ASSERT_TRUE(WaitUntil([&] { return camera->IsDataAvailable(); }));
  GST_ELEMENT_ERROR(manager.GetGstPipeline(Shared), RESOURCE, FAILED, ("a loose contact"), (nullptr));
  EXPECT_TRUE(WaitUntil([] { return CountThreads("PIPELINE") == 0; }));
  manager.RunIgnitionStart();
  EXPECT_TRUE(WaitUntil([] { return CountThreads("PIPELINE") == 1; }));
  EXPECT_EQ(manager.ShareElement(PipelineType::Camera1), camera);
  const auto before = camera->GetCurrentFrameId();
  EXPECT_TRUE(WaitUntil([&] { return camera->GetCurrentFrameId() > before + 30; }));
  ExpectInOrder(*camera);
  EXPECT_EQ(reboots, 0);
  GST_ELEMENT_ERROR(manager.GetGstPipeline(Shared), RESOURCE, FAILED, ("it is gone"), (nullptr));
  EXPECT_TRUE(WaitUntil([&] { return reboots == 1; }));
  manager.Stop();
  Ksystem::System::SetRebootHandler({});
}

// Catches restarts without end in short order, and a pipeline that is taken down for one camera's first hiccup.
TEST_F(PipelineManagerTest, RestartsGrowRarerAndGoFromTheBranchToThePipeline) {
  using std::chrono::milliseconds;
  std::vector<std::pair<std::int64_t, bool>> tries;
  milliseconds now(0);
  bool isBack = false;
  StallWatch watch(
      milliseconds(10'000),
      [&](PipelineType type) -> std::optional<milliseconds> {
        if (type == PipelineType::Audio) return {};
        return type == PipelineType::Camera0 && !isBack ? now : milliseconds(0);
      },
      [&](PipelineType, bool whole) {
        tries.emplace_back(now.count() / 1000, whole);
        return true;
      });
  for (; now < milliseconds(1'300'000); now += milliseconds(1000)) watch.Look(now);
  const std::vector<std::pair<std::int64_t, bool>> expected{{10, false}, {30, false}, {70, true},  {150, true},
                                                            {310, true}, {610, true}, {910, true}, {1210, true}};
  EXPECT_EQ(tries, expected);
  isBack = true;
  watch.Look(now);
  EXPECT_EQ(CountLogged("camera1 delivers again, after 8 restarts"), 1);
  isBack = false;
  watch.Look(now + milliseconds(400'000));
  EXPECT_FALSE(tries.back().second) << "it begins with the branch again";
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
