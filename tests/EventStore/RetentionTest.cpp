// Retention: the oldest goes, what is protected or no event stays, and nothing goes in vain.
#include "EventStore/StoreFixture.h"

namespace Tavi::EventStore {
namespace {

class RetentionTest : public StoreTest {
 protected:
  /// Four events of about 100 kB; the second oldest is protected. The clock is set back before each.
  void SetUp() override {
    StoreTest::SetUp();
    for (int i = 1; i <= 4; ++i) AddEvent("0000000" + std::to_string(i), 5 - i, 100'000);
    EXPECT_TRUE(SetProtected(m_events, "00000002", true, m_problem)) << m_problem;
  }
  /// The last digits of the ids of the events that are there.
  std::string GetIds() {
    std::string ids;
    for (const EventEntry& entry : ListEvents(m_events)) ids += entry.id.back();
    return ids;
  }
  std::uint64_t GetUsed() {
    std::uint64_t bytes = 0;
    for (const EventEntry& entry : ListEvents(m_events)) bytes += entry.bytes;
    return bytes;
  }
  /// A disk of half a megabyte that holds the events and nothing else.
  FreeSpace MakeDisk() {
    return [this](const std::string&) { return std::optional<std::uint64_t>(500'000 - GetUsed()); };
  }

  RetentionResult m_result;
};

// The newest, one with an early name or a protected one goes first; one too many or too few; an event that is being
// written, or no event, goes.
TEST_F(RetentionTest, TheOldestUnprotectedGoUntilTheLimitsHold) {
  const std::string writing = ".new_20261121T134000Z_00000000";
  for (const auto& dir : {writing, std::string("20261121_photos")})
    std::filesystem::create_directory(m_events + "/" + dir);
  std::ofstream(m_events + "/20261121T134000Z_00000009") << "a file";
  struct Step {
    RetentionLimits limits;
    std::uint64_t needed;
    const char* left;
  };
  const Step steps[] = {{{500'000, 4, 90'000}, 0, "1234"},
                        {{0, 4, 0}, 1, "234"},
                        {{310'000, 0, 0}, 0, "234"},
                        {{310'000, 0, 0}, 100'000, "24"},
                        {{0, 0, 350'000}, 0, "2"}};
  Retention retention(m_events, MakeDisk());
  for (const Step& step : steps) {
    EXPECT_TRUE(retention.Apply(step.limits, step.needed, m_result)) << m_result.problem;
    EXPECT_EQ(GetIds(), step.left);
    EXPECT_EQ(m_result.bytesUsed, GetUsed());
    EXPECT_EQ(m_result.events, GetIds().size());
  }
  EXPECT_EQ(m_result.removed, (std::vector<std::string>{"20261121T134001Z_00000004"}));
  EXPECT_EQ(List(m_events), writing + " 20261121T134000Z_00000009 20261121T134003Z_00000002 20261121_photos ");
}

// Events that go for a room that cannot be made; all of them because a disk does not answer.
TEST_F(RetentionTest, WhenNothingHelpsNothingGoes) {
  Retention retention(m_events, MakeDisk());
  for (const auto& [limits, needed] : std::vector<std::pair<RetentionLimits, std::uint64_t>>{
           {{50'000, 0, 0}, 0}, {{0, 1, 0}, 1}, {{0, 0, 450'000}, 0}, {{0, 0, 0}, 450'000}, {{0, 0, ~0ULL}, 100}}) {
    EXPECT_FALSE(retention.Apply(limits, needed, m_result));
    const char* limit = limits.maxBytes != 0 ? "maxBytes" : limits.maxEvents != 0 ? "maxEvents" : "minFreeBytes";
    EXPECT_NE(m_result.problem.find(limit), std::string::npos) << m_result.problem;
    EXPECT_TRUE(m_result.isFull && m_result.removed.empty()) << m_result.problem;
    EXPECT_EQ(GetIds(), "1234");
  }
  EXPECT_TRUE(SetProtected(m_events, "00000002", false, m_problem)) << m_problem;
  EXPECT_TRUE(retention.Apply({0, 1, 0}, 1, m_result)) << "room again: " << m_result.problem;
  EXPECT_EQ(GetIds(), "");
  EXPECT_FALSE(Retention(m_events, [](auto&) { return std::nullopt; }).Apply({0, 0, 1}, 0, m_result));
  EXPECT_EQ(m_result.problem, "cannot tell the free space of " + m_events);
  EXPECT_FALSE(SetProtected(m_events, "00000002", true, m_problem)) << "it is gone";
}

// Catches events that go although what is left of them would not do any more, as others take what they free.
TEST_F(RetentionTest, NothingGoesInVainWhenTheDiskFillsMeanwhile) {
  int looks = 0;
  FreeSpace filling = [&](const std::string&) {
    const std::uint64_t taken = GetUsed() + (++looks > 1 ? 150'000 : 0);
    return std::optional<std::uint64_t>(taken < 500'000 ? 500'000 - taken : 0);
  };
  EXPECT_FALSE(Retention(m_events, filling).Apply({0, 0, 350'000}, 1, m_result));
  EXPECT_TRUE(m_result.isFull);
  EXPECT_EQ(m_result.removed.size(), 1U) << m_result.problem;
  EXPECT_EQ(GetIds(), "234");
}

// An event is marked while retention, which found it without a mark, is at it.
TEST_F(RetentionTest, ProtectionComesInTimeUntilTheNameIsGone) {
  FreeSpace protectFirst = [this](const std::string&) {
    EXPECT_TRUE(SetProtected(m_events, "00000001", true, m_problem)) << m_problem;
    return std::optional<std::uint64_t>(0);
  };
  EXPECT_TRUE(Retention(m_events, protectFirst).Apply({0, 3, 0}, 0, m_result)) << m_result.problem;
  EXPECT_EQ(GetIds(), "124");
}

// An event that was saved while the clock was in the wrong year becomes the first to go; the clock's own order is lost.
TEST_F(RetentionTest, TheOrderIsThatOfSavingWhateverTheClockSays) {
  const auto inTenYears = std::filesystem::file_time_type::clock::now() + std::chrono::hours(24 * 3650);
  std::filesystem::last_write_time(m_events + "/20261121T134002Z_00000003/event.json", inTenYears);
  EXPECT_EQ(GetIds(), "1243");
  AddEvent("00000005", 0, 1);
  AddEvent("00000006", -5, 1);
  EXPECT_EQ(GetIds(), "124356");
  EXPECT_TRUE(Retention(m_events).Apply({0, 2, 0}, 0, m_result)) << m_result.problem;
  EXPECT_EQ(GetIds(), "26");
}

// A full store that refuses for ever, or that loses the sources of what it refuses.
TEST_F(RetentionTest, SavingResumesWhenThereIsRoom) {
  EventStore store(m_events, {400'000, 0, 0}, MakeDisk());
  ASSERT_TRUE(store.Open(m_problem)) << m_problem;
  for (const char* id : {"00000001", "00000003", "00000004"}) EXPECT_TRUE(store.SetProtected(id, true, m_problem));
  EventDescription event = MakeEvent("00000005", 1);
  const SourceFile source = MakeSource("Gps", "gps.dat", "abc");
  EXPECT_EQ(store.Save(event, {source}, false, m_eventDir, m_problem), SaveResult::Full);
  EXPECT_TRUE(std::filesystem::exists(source.path));
  EXPECT_TRUE(store.SetProtected("00000003", false, m_problem)) << m_problem;
  EXPECT_EQ(store.Save(event, {source}, true, m_eventDir, m_problem), SaveResult::Saved) << m_problem;
  EXPECT_TRUE(store.List().back().isProtected);
  EXPECT_EQ(GetIds(), "1245");
  EXPECT_EQ(store.Save(event, {source}, false, m_eventDir, m_problem), SaveResult::Failed) << "the source is gone";
}

// Catches another event that goes than the one that was meant, and a protected one that goes without having been told
// so.
TEST_F(RetentionTest, WhatSomebodyAsksForGoesAndNothingElse) {
  std::vector<std::string> noted;
  Retention retention(m_events, MakeDisk(), [&](const std::string&, const std::string& name, bool isRequested) {
    noted.push_back(name + (isRequested ? " on request" : ""));
    return true;
  });
  EXPECT_FALSE(retention.Remove("00000002", false, m_problem));
  EXPECT_TRUE(m_problem.starts_with("event 00000002 is protected and stays;")) << m_problem;
  EXPECT_FALSE(retention.Remove("00000005", true, m_problem));
  EXPECT_EQ(GetIds(), "1234");
  EXPECT_TRUE(retention.Remove("00000003", false, m_problem)) << m_problem;
  EXPECT_TRUE(retention.Remove("00000002", true, m_problem)) << m_problem;
  EXPECT_EQ(GetIds(), "14");
  EXPECT_EQ(noted,
            (std::vector<std::string>{"20261121T134002Z_00000003 on request", "20261121T134003Z_00000002 on request"}));
}

}  // namespace
}  // namespace Tavi::EventStore
