// The ring: positions, ids, key-frame seeks, and one producer against many readers.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "Support/TestRing.h"

namespace {

using Kbase::Pipeline::IPipelineElement;
using Tavi::Testing::TestEntry;
using Tavi::Testing::TestRing;

/// Appends `count` entries with the ids a producer would give them; one in `gop` is a key frame.
void Fill(TestRing& ring, int count, int gop = 1, int phase = 0) {
  for (int i = 0; i < count; ++i) {
    const std::uint64_t id = ring.GetCurrentFrameId() + 1;
    ring.AddNext(std::make_shared<TestEntry>(id, (static_cast<int>(id) + phase) % gop == 0));
  }
}

TEST(Ring, TheFirstEntryIsInSlotZeroAndLivesAsLongAsItsReader) {
  TestRing ring(3);
  EXPECT_FALSE(ring.IsDataAvailable());
  EXPECT_EQ(ring.GetCurrentFrameId(), IPipelineElement::NoFrameId);
  EXPECT_EQ(ring.RetrieveCurrent(), nullptr);
  EXPECT_EQ(ring.GetElementAt(ring.GetRingPos()), nullptr);
  Fill(ring, 1);
  EXPECT_TRUE(ring.IsDataAvailable());
  EXPECT_EQ(ring.GetRingPos(), 0U);
  EXPECT_EQ(ring.GetElementAt(0)->frameId, 0U);
  auto first = ring.GetElementAt(0);
  const std::weak_ptr<Kbase::Pipeline::IPipelineCbElement> watch = first;
  Fill(ring, 3);
  EXPECT_EQ(ring.GetElementAt(0)->frameId, 3U);
  EXPECT_EQ(first->frameId, 0U);
  first.reset();
  EXPECT_TRUE(watch.expired());
}

TEST(Ring, IndexesAndOffsetsWrap) {
  TestRing ring(5);
  Fill(ring, 5);
  EXPECT_EQ(ring.GetElementAt(5)->frameId, 0U);
  EXPECT_EQ(ring.GetElementAt(4'000'000'003U)->frameId, 4'000'000'003U % 5);
  const struct {
    int pos, offset;
    unsigned int expected;
  } cases[] = {{0, 1, 4}, {4, -1, 0}, {-1, 0, 4}, {0, 5, 0}, {0, -12, 2}, {3, 2'147'483'647, 1}};
  for (const auto& c : cases) EXPECT_EQ(ring.SeekRelative(c.pos, c.offset), c.expected) << c.pos << " " << c.offset;
}

TEST(Ring, SeekBackFindsAStartThatADecoderCanUse) {
  const struct {
    const char* what;
    int size, added, gop, phase, count, rate;
    std::uint64_t expectedId;
  } cases[] = {
      {"exactly on a key frame", 64, 31, 10, 0, 20, 10, 10},
      {"moved back to the key frame before", 64, 35, 10, 0, 20, 10, 10},
      {"without key frames nothing moves", 64, 35, 1, 0, 20, 1, 14},
      {"a young ring gives its oldest key frame", 64, 7, 10, 0, 50, 10, 0},
      {"a young ring that starts within a group", 64, 12, 10, 7, 50, 10, 3},
      {"the oldest entries are no key frame", 20, 35, 10, 0, 18, 10, 20},
      {"the slot overwritten next is no start", 20, 40, 1, 0, 20, 1, 21},
      {"not even when it is the key frame wanted", 20, 40, 10, 0, 19, 10, 30},
      {"a ring without any key frame", 64, 30, 1000, 1, 10, 10, 19},
      {"a ring of one entry", 1, 5, 1, 0, 1, 1, 4},
  };
  for (const auto& c : cases) {
    TestRing ring(c.size);
    Fill(ring, c.added, c.gop, c.phase);
    EXPECT_EQ(ring.GetElementAt(ring.SeekBackKeyframe(c.count, c.rate))->frameId, c.expectedId) << c.what;
  }
}

TEST(Ring, ReadersNeverSeeTornOrStaleEntriesWhileTheProducerRuns) {
  TestRing ring(16);
  Fill(ring, 1);
  std::atomic<bool> done{false};
  std::atomic<std::uint64_t> reads{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < 4; ++i) {
    readers.emplace_back([&, i] {
      std::uint64_t last = 0;
      while (!done) {
        const auto current = ring.RetrieveCurrent();
        ASSERT_NE(current, nullptr);
        ASSERT_GE(current->frameId + 16, last) << "a reader was taken back by more than the ring";
        last = current->frameId;
        const auto any = ring.GetElementAt(static_cast<unsigned int>(i) * 5U);
        ASSERT_TRUE(!any || any->frameId % 16 == (static_cast<unsigned>(i) * 5U) % 16) << "an entry in another's slot";
        ++reads;
      }
    });
  }
  Fill(ring, 20000);
  while (reads < 1000) std::this_thread::yield();
  done = true;
  for (auto& reader : readers) reader.join();
  EXPECT_EQ(ring.GetCurrentFrameId(), 20000U);
}

}  // namespace
