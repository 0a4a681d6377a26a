// The microphone's branch on the simulated sound card, and what its collector makes of the ring.
#include <alsa/asoundlib.h>
#include <gst/app/gstappsrc.h>
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>

#include "KMedia/Alsa/AudioGain.h"
#include "KMedia/Mp3/Mp3Frames.h"
#include "Simulator/SimulatedCar.h"
#include "Support/Media.h"
#include "Tavi/Audio/AudioPipelineCbElement.h"
#include "Tavi/Audio/AudioPipelineCollect.h"
#include "Tavi/Audio/AudioPipelineElement.h"
#include "Tavi/GstUtil/BufferMap.h"

namespace {

using namespace Tavi::Audio;
using Tavi::GstUtil::BufferMap;
using Tavi::Testing::WaitUntil;

class AudioTest : public Tavi::Testing::MediaTest {
 protected:
  using Element = Kbase::Pipeline::IPipelineElement;

  static void Feed(Element& ring, int entries) {
    for (int i = 0; i < entries; ++i) {
      const std::uint64_t id = ring.GetCurrentFrameId() + 1;
      ring.AddNext(std::make_shared<AudioPipelineCbElement>(
          id, Tavi::Testing::MakeBuffer(Tavi::Testing::EntryText(id), id * GST_MSECOND)));
    }
  }
};

// Catches frames that are split or joined, a bit rate, sample rate or number of channels that is not the one asked for,
// sound that passes a closed gate, and time stamps that jump or stand.
TEST_F(AudioTest, EachEntryIsOneMp3FrameOfTheAskedRateAndOnlyWhileStarted) {
  const Tavi::Simulator::SimulatedCar car;
  ASSERT_EQ(car.GetProblem(), "");
  const struct {
    int kilobits, channels, rate, expectedRate;
    float frameRate;
  } cases[] = {{64, 0, 0, 44100, 38.3F}, {128, 1, 48000, 48000, 41.67F}, {64, 2, 32000, 32000, 27.78F}};
  for (const auto& [kilobits, channels, rate, expectedRate, frameRate] : cases) {
    SCOPED_TRACE(expectedRate);
    GstElement* pipeline = gst_pipeline_new(nullptr);
    AudioConfig config;
    config.bitrate = kilobits;
    config.channels = channels;
    config.rate = rate;
    config.frameRate = frameRate;
    AudioPipelineElement audio(pipeline, config, 100);
    ASSERT_NE(gst_element_set_state(pipeline, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_FALSE(audio.IsDataAvailable()) << "it is not started";
    audio.Start();
    const auto seconds = [&audio, perSecond = static_cast<double>(frameRate)](double s) {
      return audio.IsDataAvailable() && static_cast<double>(audio.GetCurrentFrameId()) > perSecond * s;
    };
    ASSERT_TRUE(WaitUntil([&] { return seconds(0.7); }));
    audio.Stop();
    audio.Start();
    ASSERT_TRUE(WaitUntil([&] { return seconds(1.2); }));
    audio.Stop();
    gst_element_set_state(pipeline, GST_STATE_NULL);
    double before = 0.0;
    int jumps = 0;
    for (unsigned int i = 1; i < 26; ++i) {
      const auto entry = audio.GetElementAt(i);
      const auto& frame = dynamic_cast<const AudioPipelineCbElement&>(*entry);
      const BufferMap map(&frame);
      const auto split = KMedia::Mp3::SplitMp3Frames(map.GetBytes());
      EXPECT_EQ(split.frames.size(), 1U);
      EXPECT_EQ(split.sampleRate, expectedRate);
      EXPECT_EQ(split.channels, channels > 0 ? channels : split.channels);
      EXPECT_NEAR(static_cast<double>(map.GetBytes().size()), kilobits * 1000 / 8.0 * 1152 / expectedRate, 1.0);
      const auto pts = static_cast<double>(GST_BUFFER_PTS(frame.buffer));
      jumps += i > 2 && std::abs(pts - before - 1152e9 / expectedRate) > 12e6 ? 1 : 0;
      before = pts;
    }
    EXPECT_LE(jumps, 1) << "one is a machine that let the card's buffer run over";
    gst_object_unref(pipeline);
  }
  EXPECT_EQ(CountLogged("Aquisition for audio has been started"), 3) << "once a ring";
}

// Catches entries out of order where a card that came back is timed anew, and sound that is lost until a time that
// began anew has caught up.
TEST_F(AudioTest, SoundOfATimeThatIsThereAlreadyIsLeftOut) {
  AudioPipelineElement audio(nullptr, AudioConfig(), 20);
  GstElement* pipeline = gst_parse_launch("appsrc name=in format=time ! appsink name=out sync=false", nullptr);
  GstElement* in = gst_bin_get_by_name(GST_BIN(pipeline), "in");
  GstElement* out = gst_bin_get_by_name(GST_BIN(pipeline), "out");
  gst_element_set_state(pipeline, GST_STATE_PLAYING);
  for (const GstClockTime ms : {500, 526, 552, 535, 561, 587, 10, 36}) {
    gst_app_src_push_buffer(GST_APP_SRC(in), Tavi::Testing::MakeBuffer("frame", ms * GST_MSECOND));
    AudioPipelineElement::SetEncodedFrameCallback(GST_APP_SINK(out),
                                                  static_cast<Tavi::Audio::GstAudioPipelineElement*>(&audio));
  }
  gst_element_set_state(pipeline, GST_STATE_NULL);
  for (GstElement* element : {in, out, pipeline}) gst_object_unref(element);
  std::vector<GstClockTime> kept;
  for (unsigned int id = 0; id <= audio.GetCurrentFrameId(); ++id) {
    const auto& frame = dynamic_cast<const AudioPipelineCbElement&>(*audio.GetElementAt(id));
    kept.push_back(GST_BUFFER_PTS(frame.buffer) / GST_MSECOND);
  }
  EXPECT_EQ(kept, (std::vector<GstClockTime>{500, 526, 552, 561, 587, 10, 36}));
}

// Catches a gain that is not applied (0 among them), one that is although the mixer is to be left alone, and one that
// is lost without a word.
TEST_F(AudioTest, TheGainGoesToTheCardBeforeTheCapture) {
  const auto levelOf = [](int gainLevel, const std::string& card = {}) {
    AudioConfig config;
    config.gainLevel = gainLevel;
    config.device = card;
    AudioPipelineElement audio(config, 10);
    snd_ctl_t* control = nullptr;
    EXPECT_EQ(snd_ctl_open(&control, card.empty() ? "default" : card.c_str(), 0), 0);
    snd_ctl_elem_value_t* value = nullptr;
    snd_ctl_elem_value_alloca(&value);
    snd_ctl_elem_value_set_interface(value, SND_CTL_ELEM_IFACE_MIXER);
    snd_ctl_elem_value_set_name(value, "Capture Volume");
    EXPECT_EQ(snd_ctl_elem_read(control, value), 0);
    snd_ctl_close(control);
    return snd_ctl_elem_value_get_integer(value, 0);
  };
  {
    const Tavi::Simulator::SimulatedCar car;
    EXPECT_EQ(levelOf(70), 70);
    EXPECT_EQ(levelOf(-1), 70);
    EXPECT_EQ(levelOf(0), 0);
    EXPECT_EQ(levelOf(1000), 100);
    EXPECT_EQ(CountLogged("the capture gain 1000 is outside the card's scale of 0 to 100: 100 is set"), 1);
    EXPECT_EQ(levelOf(50), 50);
    // The default card is another one.
    std::ofstream(m_dir + "named.conf") << "<" << getenv("ALSA_CONFIG_PATH") << ">\nctl.!default { type hw card 77 }\n"
                                        << "pcm.mic { type tavi_sim }\nctl.mic { type tavi_sim }\n";
    const std::string usual = getenv("ALSA_CONFIG_PATH");
    setenv("ALSA_CONFIG_PATH", (m_dir + "named.conf").c_str(), 1);
    EXPECT_EQ(levelOf(20, "mic"), 20);
    setenv("ALSA_CONFIG_PATH", usual.c_str(), 1);
  }
  for (const char* device : {"plughw:77,0", "dsnoop:CARD=77,DEV=1", "plug:hw:77"}) {
    EXPECT_FALSE(KMedia::Alsa::ChangeAudioGainLevel(5, device));
    EXPECT_EQ(CountLogged("cannot set the capture gain: the card hw:77 has no mixer"), 1) << device;
    ClearLog();
  }
  std::ofstream(m_dir + "no-card.conf") << "ctl.!default { type hw card 77 }\n";
  setenv("ALSA_CONFIG_PATH", (m_dir + "no-card.conf").c_str(), 1);
  EXPECT_FALSE(KMedia::Alsa::ChangeAudioGainLevel(5));
  EXPECT_EQ(CountLogged("cannot set the capture gain: the default card has no mixer"), 1);
  unsetenv("ALSA_CONFIG_PATH");
}

TEST_F(AudioTest, APreviewsSoundEndsWhereTheRingDoesAndForeignEntriesAreRefused) {
  Tavi::Testing::TestRing ring(300, 38.3F);
  Feed(ring, 240);
  AudioPipelineCollect collect(&ring, false);
  const auto preview = [&](unsigned int start, int seconds) {
    collect.CollectPreview(m_dir + "p.mp3", start, seconds);
    return Tavi::Testing::ReadFile(m_dir + "p.mp3");
  };
  const long descriptors = CountDescriptors();
  std::string expected;
  for (std::uint64_t id = 5; id < 5 + 229; ++id) expected += Tavi::Testing::EntryText(id);
  EXPECT_EQ(preview(5, 6), expected) << "6 s are 229 frames";
  EXPECT_EQ(preview(238, 6), "<238><239>");
  EXPECT_EQ(preview(5, 0), "");
  EXPECT_TRUE(std::filesystem::exists(m_dir + "p.mp3"));
  Tavi::GstUtil::GstPipelineCbElement foreign(0, Tavi::Testing::MakeBuffer("x", 0), "video");
  AudioPipelineCbElement none(0, nullptr);
  EXPECT_FALSE(collect.Write(stdout, &foreign) || collect.Write(stdout, &none) || collect.Write(stdout, nullptr));
  EXPECT_EQ(CountDescriptors(), descriptors);
}

}  // namespace
