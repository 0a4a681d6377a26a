// Who takes an event, and when.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <string>

#include "Recorder/Service/EventQueue.h"
#include "Support/Fixtures.h"

namespace Tavi::Recorder {
namespace {

constexpr std::size_t Spare = EventQueue::Second + 1;

EventOrder MakeOrder(const std::string& id, int durationSeconds = 30) {
  EventOrder order;
  order.id = id;
  order.durationSeconds = durationSeconds;
  return order;
}

bool Push(EventQueue& queue, const std::string& id, int durationSeconds = 30) {
  EventOrder order = MakeOrder(id, durationSeconds);
  return queue.Push(order);
}

std::string Take(EventQueue& queue, std::size_t taker, const EventQueue::RoomCheck& hasRoom = nullptr) {
  const auto order = queue.Take(taker, hasRoom);
  return order ? order->id : "";
}

}  // namespace

// Catches a third request at once that stays in memory, where a crash loses it, while the disk has room for it; and one
// that is put on a disk that has none.
TEST(EventQueueTest, ASpareTakesWhatTheFirstTwoCannotAsSoonAsThereIsRoom) {
  EventQueue queue(2);
  ASSERT_EQ(queue.GetTakers(), 4U);
  std::atomic<bool> isRoom{false};
  std::atomic<int> asked{0};
  const EventQueue::RoomCheck hasRoom = [&](const std::vector<int>& durations) {
    EXPECT_EQ(durations, (std::vector<int>{7, 30, 12}));
    ++asked;
    return isRoom.load();
  };
  auto spare = std::async(std::launch::async, [&] { return Take(queue, Spare, hasRoom); });
  ASSERT_TRUE(Push(queue, "a"));
  EXPECT_EQ(Take(queue, 0), "a");
  ASSERT_TRUE(Push(queue, "b", 12));
  EXPECT_EQ(Take(queue, 1), "b");
  EXPECT_EQ(asked, 0) << "there was nothing for it";
  ASSERT_TRUE(Push(queue, "c", 7));
  ASSERT_TRUE(Tavi::Testing::WaitUntil([&] { return asked > 1; }));
  EXPECT_EQ(queue.Read().waiting, 1U);
  isRoom = true;
  EXPECT_EQ(spare.get(), "c");
  EXPECT_EQ(queue.Read().running, (std::vector<std::string>{"a", "b", "c"}));
  ASSERT_TRUE(Push(queue, "d"));
  EXPECT_FALSE(Push(queue, "e")) << "two and the queue's length are under way";
  queue.Finish(1);
  EXPECT_EQ(Take(queue, 1), "d") << "the second is free before any spare";
}

TEST(EventQueueTest, AFullDiskLeavesWhatWaitsToWhoeverIsFreeNext) {
  EventQueue queue(1);
  ASSERT_TRUE(Push(queue, "a") && Push(queue, "b"));
  EXPECT_EQ(Take(queue, 0), "a");
  EXPECT_EQ(Take(queue, 1), "b");
  std::atomic<int> asked{0};
  auto spare =
      std::async(std::launch::async, [&] { return Take(queue, Spare, [&](const auto&) { return ++asked < 0; }); });
  ASSERT_TRUE(Push(queue, "c"));
  ASSERT_TRUE(Tavi::Testing::WaitUntil([&] { return asked > 0; }));
  queue.Finish(0);
  EXPECT_EQ(Take(queue, 0), "c");
  ASSERT_TRUE(Push(queue, "d"));
  queue.Close();
  EXPECT_EQ(spare.get(), "d") << "what waits when the recorder ends is handed out, room or none";
  EXPECT_EQ(Take(queue, Spare), "") << "closed and empty";
}

}  // namespace Tavi::Recorder
