// One collector on one ring: which entries reach the file, and every way in which a collect can end.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <csignal>

#include "Support/Media.h"
#include "Tavi/PipelineCollect/EntryTimes.h"
#include "Tavi/PipelineCollect/PipelineCollect.h"

namespace {

using namespace Tavi::PipelineCollect;
using Tavi::GstUtil::GstPipelineCbElement;
using Tavi::Testing::AddMedia;
using Tavi::Testing::ReadFile;
using Tavi::Testing::TestRing;
using Tavi::Testing::WaitUntil;

/// Writes the entries' own bytes between brackets of its own.
class TextCollect final : public PipelineCollect {
 public:
  explicit TextCollect(Kbase::Pipeline::IPipelineElement* ring)
      : PipelineCollect(ring, PipelineCollectType::Gps, "COLLECT-TEST") {}
  ~TextCollect() override { Stop(); }
  bool WriteHeader(FILE* file) override { return std::fputs("[", file) >= 0; }
  bool WriteFooter(FILE* file) override { return std::fputs("]", file) >= 0; }
  bool Write(FILE* file, Kbase::Pipeline::IPipelineCbElement* entry) override {
    const auto* media = dynamic_cast<GstPipelineCbElement*>(entry);
    if (media == nullptr || file == nullptr) return false;
    GstMapInfo map;
    gst_buffer_map(media->buffer, &map, GST_MAP_READ);
    const bool written = std::fwrite(map.data, 1, map.size, file) == map.size;
    gst_buffer_unmap(media->buffer, &map);
    ++writes;
    return written;
  }
  std::atomic<int> writes{0};
};

/// Power fails while an entry is written that does not fit; the next ones would.
class FullAtPowerFailure final : public PipelineCollect {
 public:
  explicit FullAtPowerFailure(Kbase::Pipeline::IPipelineElement* ring)
      : PipelineCollect(ring, PipelineCollectType::Gps, "COLLECT-TEST") {}
  ~FullAtPowerFailure() override { Stop(); }
  bool Write(FILE* file, Kbase::Pipeline::IPipelineCbElement* entry) override {
    if (entry->frameId == 20) {
      SetSyncToDisk(true);
      RequestStop();
      return false;
    }
    return std::fputs(Tavi::Testing::EntryText(entry->frameId).c_str(), file) >= 0;
  }
};

std::string Range(int first, int last) {
  std::string text = "[";
  for (int i = first; i <= last; ++i) text += Tavi::Testing::EntryText(static_cast<std::uint64_t>(i));
  return text + "]";
}

class CollectTest : public Tavi::Testing::MediaTest {
 protected:
  static constexpr float Fps = 200.0F;

  void Arm(CollectBase& collector, int durationSeconds) const {
    PipelineCollectConfig config{-1, durationSeconds, m_dir};
    collector.Init(config);
  }
  /// Starts the collector and feeds the ring at its rate until the collector's thread has ended.
  static bool RunToItsEnd(CollectBase& collector, TestRing& ring) {
    return collector.IThread::Start() && WaitUntil([&] {
             AddMedia(ring, 0);
             std::this_thread::sleep_for(std::chrono::milliseconds(4));
             return !collector.IsRunning();
           });
  }
};

TEST_F(CollectTest, WritesTheWindowAndTheEntryAtItsEnd) {
  for (const int duration : {1, -1, 0}) {
    TestRing ring(1000, Fps);
    for (int i = 0; i < 50; ++i) AddMedia(ring, 0);
    TextCollect collector(&ring);
    Arm(collector, duration);
    collector.SetStartPos(10);
    ASSERT_TRUE(RunToItsEnd(collector, ring));
    EXPECT_EQ(ReadFile(collector.GetPath()), Range(10, duration == 0 ? 10 : 210)) << duration;
    EXPECT_TRUE(collector.IsCollected());
    EXPECT_EQ(collector.GetTotalSecondsCollected(), duration == 0 ? 0U : 1U);
  }
}

// Entries behind one that is missing: nothing of them can be decoded, and a companion tells of other ones.
TEST_F(CollectTest, BehindAnEntryThatCouldNotBeSavedThereIsNothing) {
  TestRing ring(1000, Fps);
  for (int i = 0; i < 50; ++i) AddMedia(ring, 0);
  FullAtPowerFailure collector(&ring);
  PipelineCollectConfig config{-1, 1, m_dir};
  config.care.keepTimes = true;
  collector.Init(config);
  collector.SetStartPos(10);
  ASSERT_TRUE(RunToItsEnd(collector, ring));
  const std::string whole = Range(10, 19);
  EXPECT_EQ(ReadFile(collector.GetPath()), whole.substr(1, whole.size() - 2));
  const auto times = ReadTimesOf(collector.GetPath());
  ASSERT_TRUE(times);
  EXPECT_EQ(times->entries.size(), 10U);
}

TEST_F(CollectTest, AWindowAsLongAsTheRingComesOutInOrderWhileItIsOverwritten) {
  TestRing ring(50, Fps);
  for (int i = 0; i < 50; ++i) AddMedia(ring, 0);
  TextCollect collector(&ring);
  Arm(collector, 1);
  collector.SetStartPos(ring.SeekBackKeyframe(40, 1));
  const auto first = static_cast<int>(ring.GetElementAt(collector.GetStartPos())->frameId);
  ASSERT_TRUE(RunToItsEnd(collector, ring));
  EXPECT_EQ(ReadFile(collector.GetPath()), Range(first, first + 200));
}

TEST_F(CollectTest, AReaderThatWasLappedGoesOnAtAKeyFrameAndCountsWhatItLost) {
  TestRing ring(20, Fps);
  for (int i = 0; i < 10; ++i) AddMedia(ring, 0, i % 5 == 0);
  RingReader reader(0);
  reader.Follow(ring, 9);
  for (int i = 10; i < 48; ++i) AddMedia(ring, 0, i % 5 == 0);
  reader.Follow(ring, 47);
  std::vector<std::uint64_t> ids;
  while (const auto entry = reader.Next()) ids.push_back(entry->frameId);
  ASSERT_EQ(ids.size(), 10U + 18U);
  EXPECT_EQ(ids[9], 9U);
  EXPECT_EQ(ids[10], 30U) << "28 and 29 are still there but no key frames";
  EXPECT_EQ(ids.back(), 47U);
  EXPECT_EQ(reader.GetLost(), 20U);
}

TEST_F(CollectTest, AStoppedCollectIsWellFormedAndShorter) {
  for (const bool abort : {false, true}) {
    TestRing ring(1000, Fps);
    for (int i = 0; i < 10; ++i) AddMedia(ring, 0);
    TextCollect collector(&ring);
    Arm(collector, 60);
    ASSERT_TRUE(collector.IThread::Start());
    ASSERT_TRUE(WaitUntil([&] {
      AddMedia(ring, 0);
      return collector.writes >= 5;
    }));
    abort ? static_cast<void>(collector.Abort()) : collector.RequestStop();
    ASSERT_TRUE(WaitUntil([&] { return !collector.IsRunning(); }));
    EXPECT_EQ(ReadFile(collector.GetPath()), Range(0, collector.writes - 1)) << abort;
    EXPECT_TRUE(collector.IsCollected());
  }
}

TEST_F(CollectTest, WhatTheWindowHasIsWrittenWhenTheSourceIsTakenAway) {
  auto ring = std::make_shared<TestRing>(1000, Fps);
  for (int i = 0; i < 300; ++i) AddMedia(*ring, 0);
  TextCollect collector(nullptr);
  collector.Bind(ring);
  Arm(collector, 60);
  collector.SetStartPos(100);
  ASSERT_TRUE(collector.IThread::Start());
  ASSERT_TRUE(WaitUntil([&] {
    AddMedia(*ring, 0);
    return collector.writes >= 3;
  }));
  ring.reset();
  ASSERT_TRUE(WaitUntil([&] { return !collector.IsRunning(); }));
  const std::string text = ReadFile(collector.GetPath());
  EXPECT_EQ(text.substr(0, text.find("<300>")) + "]", Range(100, 299));
  EXPECT_EQ(text.back(), ']');
  Arm(collector, 60);
  ASSERT_TRUE(collector.IThread::Start());
  ASSERT_TRUE(WaitUntil([&] { return !collector.IsRunning(); }));
  EXPECT_FALSE(collector.IsCollected()) << "a later collect has no source";
}

// Catches an unplugged sensor that holds every event up to its limit, entries of minutes ago in today's window, and the
// seconds before an impact lost with the sensor that did not survive it.
TEST_F(CollectTest, ASilentSourceEndsItsFileWithWhatTheWindowHas) {
  TestRing rings[] = {TestRing(100, 10.0F), TestRing(100, 10.0F), TestRing(100, 10.0F)};
  for (auto& ring : rings) {
    for (int i = 0; i < 10; ++i) AddMedia(ring, 0);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));  // longer than the window looks back
  TextCollect before(&rings[0]);
  TextCollect atOnce(&rings[1]);
  TextCollect during(&rings[2]);
  AddMedia(rings[1], 0);
  for (TextCollect* collector : {&before, &atOnce, &during}) {
    Arm(*collector, 60);
    collector->SetStartPos(2);
    ASSERT_TRUE(collector->IThread::Start());
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  AddMedia(rings[2], 0);
  ASSERT_TRUE(WaitUntil([&] { return !before.IsRunning() && !atOnce.IsRunning() && !during.IsRunning(); }));
  EXPECT_EQ(ReadFile(before.GetPath()), "[]");
  EXPECT_EQ(ReadFile(atOnce.GetPath()), Range(2, 10));
  EXPECT_EQ(ReadFile(during.GetPath()), Range(2, 10));
  EXPECT_EQ(CountLogged("its source has been silent for 3"), 3);
}

TEST_F(CollectTest, NothingIsReportedWithoutAnEntryADirectoryOrAWriter) {
  const long descriptors = CountDescriptors();
  TestRing slow(10, 0.01F);
  AddMedia(slow, 0);
  TextCollect sleeping(&slow);
  Arm(sleeping, 60);
  ASSERT_TRUE(sleeping.IThread::Start());
  sleeping.RequestStop();
  EXPECT_TRUE(WaitUntil([&] { return !sleeping.IsRunning(); })) << "a stop ends the sleep of a slow source";

  TestRing empty(10, Fps);
  TextCollect noEntry(&empty);
  Arm(noEntry, 1);
  noEntry.Collect();
  EXPECT_FALSE(noEntry.IsCollected());

  TestRing ring(10, Fps);
  AddMedia(ring, 0);
  TextCollect noDirectory(&ring);
  PipelineCollectConfig config{-1, 1, m_dir + "missing/"};
  noDirectory.Init(config);
  noDirectory.Collect();
  EXPECT_FALSE(noDirectory.IsCollected());
  EXPECT_EQ(CountLogged("cannot open " + m_dir + "missing/gps_"), 1);

  TextCollect unarmed(&ring);
  ASSERT_TRUE(unarmed.IThread::Start());
  ASSERT_TRUE(WaitUntil([&] { return !unarmed.IsRunning(); }));
  EXPECT_EQ(unarmed.writes, 0);
  EXPECT_EQ(CountDescriptors(), descriptors);
}

TEST_F(CollectTest, AFullDiskLeavesWholeEntriesAndOneLine) {
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit old{};
  getrlimit(RLIMIT_FSIZE, &old);
  TestRing ring(1000, Fps);
  for (int i = 0; i < 100; ++i) AddMedia(ring, 0);
  TextCollect collector(&ring);
  Arm(collector, 10);
  collector.SetStartPos(10);  // entries of four bytes; 23 bytes hold the bracket and five of them and a half
  const rlimit small{23, old.rlim_max};
  setrlimit(RLIMIT_FSIZE, &small);
  const bool ended = RunToItsEnd(collector, ring);
  setrlimit(RLIMIT_FSIZE, &old);
  ASSERT_TRUE(ended);
  EXPECT_EQ(ReadFile(collector.GetPath()), Range(10, 14));
  EXPECT_TRUE(collector.IsCollected());
  EXPECT_EQ(CountLogged("cannot write " + collector.GetPath()), 1);
}

TEST_F(CollectTest, AnArmedCollectorTakesAFreshNameAndBacksUpWhatItHas) {
  TestRing ring(1000, Fps);
  AddMedia(ring, 0);
  TextCollect collector(&ring);
  Arm(collector, 0);
  const std::string first = collector.GetPath();
  EXPECT_FALSE(collector.Backup(m_dir, "none")) << "there is no file yet";
  Arm(collector, 0);
  EXPECT_NE(collector.GetPath(), first);
  ASSERT_TRUE(RunToItsEnd(collector, ring));
  const std::string withoutSlash = m_dir.substr(0, m_dir.size() - 1);
  collector.BackupAsync(withoutSlash, "event")->join();
  EXPECT_EQ(ReadFile(m_dir + "gps_event.dat"), "[<0>]");
  EXPECT_TRUE(collector.Backup(m_dir, "event2"));
  EXPECT_EQ(ReadFile(m_dir + "gps_event2.dat"), "[<0>]");
  EXPECT_FALSE(collector.Backup(m_dir + "missing", "event"));

  TextCollect twin(nullptr);
  collector.CopyTo(&twin);
  collector.Reset();
  EXPECT_EQ(collector.GetPath(), "");
  EXPECT_TRUE(twin.IsCollected());
  EXPECT_EQ(ReadFile(twin.GetPath()), "[<0>]");
  twin.DeletePath();
  twin.DeletePath();
  EXPECT_FALSE(std::filesystem::exists(twin.GetPath()));
  EXPECT_FALSE(twin.IsCollected());
}

}  // namespace
