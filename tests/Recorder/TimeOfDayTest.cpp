// The receiver's time, out of readings that are late, damaged or corrected.
#include "Recorder/Service/TimeOfDay.h"

#include <gtest/gtest.h>

namespace Tavi::Recorder {
namespace {

using std::chrono::milliseconds;
using SteadyTime = std::chrono::steady_clock::time_point;

constexpr std::int64_t Noon = 1'795'262'400'000;
constexpr SteadyTime Start{std::chrono::hours(1)};

/// A fix of so many milliseconds after noon that came so much later; noon is when the unit was started.
Gps::ReceiverTime Read(std::int64_t atMs, std::int64_t lateMs = 200) {
  return {Noon + atMs, Start + milliseconds(atMs + lateMs)};
}
/// That moment by the clocks; the system is in 1970.
EventStore::EventTime Tell(const TimeOfDay& time, std::int64_t atMs) {
  return time.Tell({Start + milliseconds(atMs), atMs});
}

// A clock that is believed for one damaged sentence, follows each late thread, or never takes a correction.
TEST(TimeOfDayTest, TheReceiversTimeIsThatOfItsQuickestReadings) {
  TimeOfDay time;
  EXPECT_FALSE(time.Learn(Read(0)));
  EXPECT_FALSE(time.Learn(Read(0))) << "the same one again";
  EXPECT_FALSE(time.Learn(Read(86'400'000, -86'400'000 + 1200))) << "tomorrow's date, within the same seconds";
  EXPECT_FALSE(time.Learn(Read(2000)));
  EXPECT_FALSE(time.Learn(Read(3000, 700)));
  EXPECT_EQ(Tell(time, 3700).source, "system");
  EXPECT_TRUE(time.Learn(Read(4000)));
  for (const std::int64_t atMs : {-5000, 4200, 3'600'000}) {
    const auto told = Tell(time, atMs);
    EXPECT_EQ(told.timeMs, Noon + atMs - 200) << "the quickest took 0.2 s";
    EXPECT_EQ(told.source, "receiver");
    EXPECT_NEAR(told.systemAheadSeconds.value_or(0), -static_cast<double>(Noon) / 1000.0 + 0.2, 1e-3);
  }
  for (const int lateMs : {50, 900, 5000, 6100}) EXPECT_FALSE(time.Learn(Read(5000 + lateMs, lateMs)));
  EXPECT_EQ(Tell(time, 0).timeMs, Noon - 50);
  // Three minutes later the crystal has lost half a second, which nothing contradicts.
  for (int second = 20; second < 200; ++second) EXPECT_FALSE(time.Learn(Read(second * 1000, 550)));
  EXPECT_EQ(Tell(time, 0).timeMs, Noon - 550);
  // The leap seconds have come, as receivers are told them some minutes after their first fix.
  for (int second = 300; second < 302; ++second) EXPECT_FALSE(time.Learn(Read(second * 1000, 2550)));
  EXPECT_TRUE(time.Learn(Read(302'000, 2550)));
  EXPECT_EQ(Tell(time, 0).timeMs, Noon - 2550);
}

}  // namespace
}  // namespace Tavi::Recorder
