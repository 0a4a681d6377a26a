// Finding the same moment in another ring, and the key frame next to it: every search ends, on the nearest entry.
#include <gtest/gtest.h>

#include "Support/Media.h"
#include "Tavi/PipelineCollect/KeyFrameGrid.h"
#include "Tavi/PipelineCollect/PipelineCollect.h"

namespace {

using namespace Tavi::PipelineCollect;
using Tavi::Testing::AddMedia;
using Tavi::Testing::TestRing;

constexpr GstClockTime Ms = GST_MSECOND;

/// `count` entries `periodMs` apart, the first at `firstMs`.
void Fill(TestRing& ring, int count, GstClockTime firstMs, GstClockTime periodMs) {
  for (int i = 0; i < count; ++i) AddMedia(ring, (firstMs + static_cast<GstClockTime>(i) * periodMs) * Ms);
}

class SyncTest : public Tavi::Testing::MediaTest {
 protected:
  /// Time stamp in ms of the entry of `own` that is found for reference position `refPos`.
  static std::uint64_t FindMs(TestRing& own, const TestRing& reference, int refPos, int frames) {
    PipelineCollect collector(&own, PipelineCollectType::Audio);
    unsigned int pos = 12345;
    EXPECT_TRUE(collector.SyncWithPipeline(&reference, refPos, frames, pos));
    std::uint64_t time = 0;
    EXPECT_TRUE(collector.GetPipelineTimestamp(static_cast<int>(pos), time));
    return time / Ms;
  }
};

TEST_F(SyncTest, FindsTheEntryBetweenTwoOfTheReferenceFromAnyStart) {
  TestRing reference(64);
  Fill(reference, 50, 1000, 100);
  TestRing own(128);
  Fill(own, 50, 1060, 100);
  for (const int frames : {0, 10, 30, 49}) EXPECT_EQ(FindMs(own, reference, 20, frames), 2960U) << frames;
}

TEST_F(SyncTest, EndsOnTheNearestEntryWhereNoneLiesBetween) {
  TestRing own(64);
  Fill(own, 40, 0, 1000);
  TestRing reference(8);
  Fill(reference, 8, 20100, 10);  // 20100, 20110, ... all between the entries at 20000 and 21000
  EXPECT_EQ(FindMs(own, reference, 3, 5), 20000U);
  EXPECT_EQ(FindMs(own, reference, 3, 39), 20000U);
  TestRing late(8);
  Fill(late, 8, 20900, 10);
  EXPECT_EQ(FindMs(own, late, 3, 5), 21000U);
  EXPECT_EQ(FindMs(own, late, 3, 39), 21000U);
}

// Catches a search that never ends, and one that takes what a dead source has left for the moment that is looked for.
TEST_F(SyncTest, EndsAtTheOldestEntryBeforeItAndFindsNothingBehindTheNewest) {
  TestRing own(32);
  Fill(own, 100, 0, 100);  // holds 6800 to 9900
  TestRing before(8);
  Fill(before, 8, 100, 10);
  TestRing after(8);
  Fill(after, 8, 50000, 10);
  EXPECT_EQ(FindMs(own, before, 4, 10), 6800U);
  PipelineCollect collector(&own, PipelineCollectType::Audio);
  for (const int frames : {0, 10, 31}) {
    unsigned int pos = 0;
    EXPECT_FALSE(collector.SyncWithPipeline(&after, 4, frames, pos)) << frames;
  }
  TestRing young(32);
  Fill(young, 5, 5000, 100);
  EXPECT_EQ(FindMs(young, before, 4, 2), 5000U) << "slots that were never written are no answer";
}

TEST_F(SyncTest, PositionZeroOfTheReferenceHasTheLastSlotBeforeIt) {
  TestRing reference(10);
  Fill(reference, 15, 0, 100);  // slot 0 holds 1000, the last slot 900
  TestRing own(64);
  Fill(own, 30, 30, 100);
  EXPECT_EQ(FindMs(own, reference, 0, 10), 930U);
  // Slot 5 is the oldest entry: the slot before it holds the newest one, which is not its neighbour in time.
  EXPECT_EQ(FindMs(own, reference, 5, 10), 530U);
}

TEST_F(SyncTest, FailsWithoutAReferenceOrTimeStamps) {
  TestRing own(16);
  TestRing reference(16);
  PipelineCollect collector(&own, PipelineCollectType::Audio);
  unsigned int pos = 7;
  EXPECT_FALSE(collector.SyncWithPipeline(nullptr, 0, 3, pos));
  EXPECT_EQ(pos, 0U);
  EXPECT_FALSE(collector.SyncWithPipeline(&reference, 0, 3, pos)) << "an empty ring";
  Fill(own, 4, 0, 10);
  EXPECT_FALSE(collector.SyncWithPipeline(&reference, 0, 3, pos)) << "an empty reference";
}

TEST_F(SyncTest, AlignsToAKeyFrameOfTheSameLap) {
  const struct {
    const char* what;
    int size, added, gop, phase;
    unsigned int pos;
    std::uint64_t expectedId;
  } cases[] = {
      {"a tie goes down", 40, 35, 10, 0, 15, 10},
      {"up to the multiple", 40, 35, 10, 0, 16, 20},
      {"up to the ring's size wraps to slot 0", 40, 45, 10, 0, 37, 40},
      {"up beyond the newest entry goes down", 40, 78, 10, 0, 37, 70},
      {"up to a slot of the lap before goes down", 40, 39, 10, 0, 38, 30},
      {"a grid that has moved: back to the nearest", 40, 35, 10, 4, 18, 16},
      {"nothing before: forward", 40, 35, 10, 2, 3, 8},
  };
  for (const auto& c : cases) {
    TestRing ring(c.size);
    for (int i = 0; i < c.added; ++i) AddMedia(ring, 0, (i + c.phase) % c.gop == 0);
    const auto found = ring.GetElementAt(AlignToKeyFrame(ring, c.pos, 10));
    ASSERT_NE(found, nullptr) << c.what;
    EXPECT_EQ(found->frameId, c.expectedId) << c.what;
  }
}

}  // namespace
