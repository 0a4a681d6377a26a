// Sources that fail, fall silent or are missing, beside others that record.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "Ksystem/System/Reboot.h"
#include "Pipeline/PipelineFixture.h"
#include "Simulator/SimulatedCar.h"
#include "Tavi/Pipeline/StallWatch.h"

namespace {

using namespace Tavi::Pipeline;
using Tavi::Testing::CapturedOutput;
using Tavi::Testing::CountThreads;
using Tavi::Testing::WaitUntil;

class RevivalTest : public Tavi::Testing::PipelineFixture {};

// Catches a camera that keeps the other one from delivering, and lines that name the camera that runs: the numbers that
// people know cross over against the keys.
TEST_F(RevivalTest, TheSupervisionNamesTheCameraThatIsSilent) {
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
    Tavi::Testing::Pauses clock;
    std::atomic<bool> stalled{true};
    PipelineManager manager(config, clock);
    clock.pause = [&] {
      EXPECT_TRUE(WaitUntil([&] { return manager.GetPipelineElement(running)->IsDataAvailable(); }));
    };
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
TEST_F(RevivalTest, ASlowCameraCostsNoSound) {
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

// Catches one device's fault that takes the other sources along, a card or a camera that is not taken up when it comes,
// and a unit that restarts for what it can do without.
TEST_F(RevivalTest, WhatIsThereRecordsAndWhatIsMissingJoinsWhenItComes) {
  std::atomic<int> reboots{0};
  Ksystem::System::SetRebootHandler([&] { ++reboots; });
  std::ofstream(m_dir + "no-card.conf") << "pcm.!default { type hw card 77 }\n";
  setenv("ALSA_CONFIG_PATH", (m_dir + "no-card.conf").c_str(), 1);
  auto config = OneCamera();
  config.camera0Enabled = config.audioEnabled = config.gpsEnabled = config.keepGoing = true;
  config.camera0.device = m_dir + "camera";
  config.gps.path = m_dir + "none";
  Tavi::Testing::Pauses clock;
  clock.pause = [&] { clock.Steady().Sleep(std::chrono::milliseconds(clock.count < 10 ? 100 : 1500)); };
  PipelineManager manager(config, clock);
  manager.RunIgnitionStart();
  EXPECT_EQ(clock.count, 10) << "what has a problem is not waited for";
  const auto running = manager.ShareElement(PipelineType::Camera1);
  const auto goesOn = [&](PipelineType type) {
    const auto ring = manager.ShareElement(type);
    const auto id = ring->IsDataAvailable() ? ring->GetCurrentFrameId() : 0;
    return WaitUntil([&] { return ring->IsDataAvailable() && ring->GetCurrentFrameId() > id + 20; });
  };
  EXPECT_TRUE(goesOn(PipelineType::Camera1));
  EXPECT_NE(manager.GetProblem(PipelineType::Camera0).find(config.camera0.device), std::string::npos);
  EXPECT_NE(manager.GetProblem(PipelineType::Audio), "");
  EXPECT_EQ(CountLogged("cannot be opened ("), 2) << "the camera and the microphone, one line each: " << GetLog();
  EXPECT_EQ(CountLogged("Aquisition for camera 1 cannot be started"), 0) << "it has its line";

  GstElement* pipeline = manager.GetGstPipeline(Shared);
  g_object_set(FindCamera(pipeline, config.camera0.device), "device", "sim:camera1", nullptr);
  const Tavi::Simulator::SimulatedCar car;
  EXPECT_TRUE(goesOn(PipelineType::Camera0));
  EXPECT_TRUE(goesOn(PipelineType::Audio));
  EXPECT_EQ(manager.GetProblem(PipelineType::Camera0) + manager.GetProblem(PipelineType::Audio), "");

  GstElement* camera = FindCamera(pipeline, "sim:camera0");
  const auto before = running->GetCurrentFrameId();
  GST_ELEMENT_ERROR(camera, RESOURCE, READ, ("its plug was pulled"), (nullptr));
  EXPECT_TRUE(
      WaitUntil([&] { return CountLogged("camera0 had failed (its plug was pulled): it was started anew") == 1; }));
  EXPECT_TRUE(goesOn(PipelineType::Camera1));
  EXPECT_TRUE(goesOn(PipelineType::Camera0));
  EXPECT_EQ(manager.ShareElement(PipelineType::Camera1), running);
  EXPECT_GT(running->GetCurrentFrameId(), before);
  ExpectInOrder(*running);
  GST_ELEMENT_ERROR(pipeline, CORE, FAILED, ("of nobody's branch"), (nullptr));
  EXPECT_TRUE(WaitUntil([&] { return CountLogged("an error has ended the pipeline: it is started anew") == 1; }));
  EXPECT_TRUE(goesOn(PipelineType::Camera1) && goesOn(PipelineType::Camera0) && goesOn(PipelineType::Audio));
  EXPECT_EQ(reboots, 0);
  manager.Stop();
  Ksystem::System::SetRebootHandler({});
  unsetenv("ALSA_CONFIG_PATH");
}

// Catches a silent source that nobody starts again, a restart that takes the others along or begins a ring anew, time
// that runs back over it, and an event clock that loses the gap.
TEST_F(RevivalTest, ASilentSourceIsStartedAnewAndTheRingsGoOn) {
  const Tavi::Simulator::SimulatedCar car;
  auto config = OneCamera();
  config.camera0Enabled = config.audioEnabled = true;
  config.camera0.device = "sim:camera1";
  config.restartAfterSeconds = 2;
  std::atomic<bool> stalled{false};
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
    stalled = true;
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
  EXPECT_LT(std::llabs(GST_CLOCK_DIFF(newest(PipelineType::Audio), newest(PipelineType::Camera0))), GST_SECOND * 3 / 2)
      << "a gap would be two seconds at least";
  EXPECT_EQ(CountThreads("PIPELINE"), 1);
}

// Catches a clock that runs ahead, or stands still, when the card that it counts the samples of is pulled, and sound
// that nobody has recorded: cameras and sound of that second would lie seconds beside those of the next one.
TEST_F(RevivalTest, APulledSoundCardMovesNoTime) {
  const Tavi::Simulator::SimulatedCar car;
  auto config = OneCamera();
  config.audioEnabled = config.keepGoing = true;
  PipelineManager manager(config);
  manager.Start();
  const auto sound = manager.ShareElement(PipelineType::Audio);
  const auto reaches = [](const auto& ring, std::uint64_t id) {
    return WaitUntil([&] { return ring->IsDataAvailable() && ring->GetCurrentFrameId() >= id; });
  };
  GstElement* pipeline = manager.GetGstPipeline(Shared);
  // How far running time is from the steady clock, in seconds.
  const auto findDistance = [pipeline] {
    GstClock* clock = gst_element_get_clock(pipeline);
    const GstClockTime steady = gst_util_get_timestamp();
    const GstClockTime running = gst_clock_get_time(clock) - gst_element_get_base_time(pipeline);
    gst_object_unref(clock);
    return static_cast<double>(GST_CLOCK_DIFF(steady, running)) / GST_SECOND;
  };
  ASSERT_TRUE(reaches(manager.ShareElement(PipelineType::Camera1), 40) && reaches(sound, 40));
  const double before = findDistance();
  const std::uint64_t pulledAt = sound->GetCurrentFrameId();
  car.SetSoundCardThere(false);
  EXPECT_TRUE(WaitUntil([&] { return CountLogged("audio has failed: ") == 1; }));
  EXPECT_NEAR(findDistance(), before, 0.3) << "before it is noticed";
  EXPECT_TRUE(WaitUntil([&] { return CountLogged("audio cannot be opened (") == 1; }));
  EXPECT_NEAR(findDistance(), before, 0.3);
  car.SetSoundCardThere(true);
  EXPECT_TRUE(reaches(sound, pulledAt + 80));
  EXPECT_NEAR(findDistance(), before, 0.3) << "when it is back";
  manager.Stop();

  ExpectInOrder(*sound);
  for (std::uint64_t id = pulledAt + 1; id <= sound->GetCurrentFrameId(); ++id) {
    const auto entry = std::dynamic_pointer_cast<Tavi::GstUtil::GstPipelineCbElement>(
        sound->GetElementAt(static_cast<unsigned int>(id)));
    const std::chrono::duration<double> madeAt = entry->GetMadeAt().time_since_epoch();
    EXPECT_LT(static_cast<double>(GST_BUFFER_PTS(entry->buffer)) / GST_SECOND, madeAt.count() + before + 0.3) << id;
  }
}

// Catches sound that runs away from the pictures, by a real card's crystal a second in three hours, where the card came
// too late to give the clock.
TEST_F(RevivalTest, SoundThatJoinsLateStaysInStepWithThePictures) {
  const Tavi::Simulator::SimulatedCar car;
  const std::string plain = getenv("ALSA_CONFIG_PATH");
  std::ofstream(m_dir + "fast.conf") << "<" << plain << ">\npcm.default.fasterPpm 7000\n";
  setenv("ALSA_CONFIG_PATH", (m_dir + "fast.conf").c_str(), 1);
  car.SetSoundCardThere(false);
  auto config = OneCamera();
  config.audioEnabled = config.keepGoing = true;
  PipelineManager manager(config);
  manager.Start();
  const auto sound = manager.ShareElement(PipelineType::Audio);
  const auto camera = manager.ShareElement(PipelineType::Camera1);
  ASSERT_TRUE(WaitUntil([&] { return camera->IsDataAvailable(); }));
  car.SetSoundCardThere(true);
  ASSERT_TRUE(WaitUntil([&] { return sound->IsDataAvailable(); }));
  const auto joined = std::chrono::steady_clock::now();
  const auto last = static_cast<std::uint64_t>(15 * config.audio.frameRate);
  ASSERT_TRUE(WaitUntil([&] { return sound->GetCurrentFrameId() >= last; }));
  // The shortest way from capture to ring, of entries that arrived `from` to `from` + 2 s after the card.
  const auto findWay = [&](const auto& ring, int from) {
    double shortest = 1e9;
    for (int back = 0; back + 1 < static_cast<int>(ring->GetRingSize()); ++back) {
      const auto entry = std::dynamic_pointer_cast<Tavi::GstUtil::GstPipelineCbElement>(
          ring->GetElementAt(ring->SeekRelative(static_cast<int>(ring->GetRingPos()), back)));
      if (!entry) break;
      const std::chrono::duration<double> since = entry->GetMadeAt() - joined;
      if (since.count() < from || since.count() > from + 2) continue;
      const std::chrono::duration<double> arrived = entry->GetMadeAt().time_since_epoch();
      shortest = std::min(shortest, arrived.count() - static_cast<double>(GST_BUFFER_PTS(entry->buffer)) / GST_SECOND);
    }
    EXPECT_LT(shortest, 1e9) << "nothing from " << from << " s on";
    return shortest;
  };
  const double early = findWay(sound, 1) - findWay(camera, 1);
  EXPECT_NEAR(findWay(sound, 13) - findWay(camera, 13), early, 0.04) << "12 s of seven thousandths are 84 ms";
  manager.Stop();
  ExpectInOrder(*camera);
  setenv("ALSA_CONFIG_PATH", plain.c_str(), 1);
}

// Catches an ignition that arms a pipeline which an error has ended, and a loop that nobody runs any more.
TEST_F(RevivalTest, IgnitionOnStartsAgainWhatAnErrorHasEnded) {
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
  // Nothing comes any more; the first frame of a simulated camera may be one interval old.
  gst_element_set_state(manager.GetGstPipeline(Shared), GST_STATE_PAUSED);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
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
TEST_F(RevivalTest, RestartsGrowRarerAndGoFromTheBranchToThePipeline) {
  using std::chrono::milliseconds;
  std::vector<std::pair<std::int64_t, bool>> tries;
  milliseconds now(0);
  bool isBack = false;
  StallWatch watch(
      milliseconds(10'000),
      [&](PipelineType type) -> std::optional<StallWatch::Condition> {
        if (type == PipelineType::Audio) return {};
        return StallWatch::Condition{type == PipelineType::Camera0 && !isBack ? now : milliseconds(0), {}};
      },
      [&](PipelineType, bool whole) {
        tries.emplace_back(now.count() / 1000, whole);
        return StallWatch::Outcome::Restarted;
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

}  // namespace
