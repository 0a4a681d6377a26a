// Where the streams of one event begin, on rings alone: the same moment in all of them, whatever their clocks' phases.
#include "Tavi/EventCollect/StartSync.h"

#include <gtest/gtest.h>

#include <cmath>
#include <optional>

#include "Support/Media.h"

namespace {

using namespace Tavi::PipelineCollect;
using Tavi::Testing::AddMedia;
using Tavi::Testing::TestRing;

class StartSyncTest : public Tavi::Testing::MediaTest {
 protected:
  /// A source of `fps` entries a second from `firstMs` to `presentMs`, with a key frame a second.
  void AddSource(PipelineCollectType type, float fps, double firstMs, double presentMs = 40000) {
    auto ring = std::make_shared<TestRing>(static_cast<int>(fps * 32), fps);
    const int gop = static_cast<int>(fps);
    const double periodMs = 1000.0 / static_cast<double>(fps);
    for (int i = 0; firstMs + i * periodMs < presentMs; ++i) {
      AddMedia(*ring, static_cast<GstClockTime>((firstMs + i * periodMs) * GST_MSECOND), i % gop == 0);
    }
    m_rings[type] = ring;
  }
  /// When the entry at the stream's start was made; nothing without a start.
  std::optional<double> StartMs(const Starts& starts, PipelineCollectType type) {
    const auto found = starts.find(type);
    if (found == starts.end()) return {};
    const auto entry = m_rings.at(type)->GetElementAt(found->second.pos);
    const auto* media = dynamic_cast<const Tavi::GstUtil::GstPipelineCbElement*>(entry.get());
    return static_cast<double>(GST_BUFFER_PTS(media->buffer)) / GST_MSECOND;
  }
  void AddAll(double camera0FirstMs) {
    AddSource(PipelineCollectType::VideoCamera0, 30, camera0FirstMs);
    AddSource(PipelineCollectType::VideoCamera1, 15, 0);
    AddSource(PipelineCollectType::Audio, 38.3F, 7);
    for (const auto type : {PipelineCollectType::Gps, PipelineCollectType::Other}) AddSource(type, 1, 300);
    AddSource(PipelineCollectType::Acc, 10, 50);
  }

  Rings m_rings;
};

TEST_F(StartSyncTest, EveryStreamBeginsAtTheSameMomentWhateverItsPhase) {
  for (const double phaseMs : {0.0, 250.0, 499.0, 501.0, 900.0}) {
    AddAll(phaseMs);
    const auto starts = StartSync(m_rings, 10).Find();
    // The present is 40 s; camera 1's key frames lie on full seconds, 150 of its frames back is the 29.93rd.
    const double camera1 = *StartMs(starts, PipelineCollectType::VideoCamera1);
    EXPECT_NEAR(camera1, 29000, 1) << phaseMs;
    const double camera0 = *StartMs(starts, PipelineCollectType::VideoCamera0);
    EXPECT_LE(std::abs(camera0 - camera1), 535) << "the key frame next to camera 1's start, " << phaseMs;
    EXPECT_NEAR(std::fmod(camera0 - phaseMs, 1000), 0, 1) << "a key frame";
    EXPECT_NEAR(*StartMs(starts, PipelineCollectType::Audio), camera1, 27) << "within a frame of the sound";
    EXPECT_NEAR(*StartMs(starts, PipelineCollectType::Acc), 29950, 51);
  }
}

TEST_F(StartSyncTest, WithoutCamera1TheSoundGoesByCamera0AndWithoutBothByNothing) {
  AddAll(250);
  m_rings.erase(PipelineCollectType::VideoCamera1);
  auto starts = StartSync(m_rings, 10).Find();
  const double camera0 = *StartMs(starts, PipelineCollectType::VideoCamera0);
  EXPECT_NEAR(camera0, 29250, 1);
  EXPECT_NEAR(*StartMs(starts, PipelineCollectType::Audio), camera0, 27);
  EXPECT_EQ(CountLogged("No video available"), 0);

  m_rings[PipelineCollectType::VideoCamera0] = nullptr;
  starts = StartSync(m_rings, 10).Find();
  EXPECT_FALSE(StartMs(starts, PipelineCollectType::Audio));
  EXPECT_TRUE(StartMs(starts, PipelineCollectType::Acc)) << "the sensors go by count";
  EXPECT_EQ(CountLogged("No video available"), 1);
}

}  // namespace
