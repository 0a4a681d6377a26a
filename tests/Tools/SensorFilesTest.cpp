// The sensor files read back: their values, their times, and what damage leaves of them.
#include "EventStore/SensorFiles.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "Support/Nmea.h"

namespace {

using namespace Tavi::EventTools;
using namespace std::string_literals;

std::string MakeEntry(const std::string& content) {
  std::string entry;
  for (int shift = 0; shift < 32; shift += 8) entry += static_cast<char>(content.size() >> shift & 0xFFU);
  return entry + content;
}

std::string MakeRmc(const std::string& fields) {
  std::string sentence = MakeSentence("GNRMC," + fields);
  sentence.resize(sentence.size() - 2);
  return MakeEntry(sentence);
}

TEST(SensorFilesTest, FixesHaveSignsTimesAndValidity) {
  setenv("TZ", "Asia/Tokyo", 1);
  tzset();
  const auto gps = ParseGps(MakeRmc("134005.25,A,4807.0726,S,01131.0020,W,24.36,12.5,211126,,,A") +
                                MakeRmc("134006.00,V,,,,,,,211126,,,N") + MakeEntry("") +
                                MakeRmc("134007.00,A,9907.0726,N,01131.0020,E,1.0,,211126,,,A") +
                                MakeRmc("134008.00,A,,,,,1.0,,211126,,,A"),
                            {-2.5, 2.0});
  unsetenv("TZ");
  tzset();
  EXPECT_EQ(gps.problem, "");
  ASSERT_EQ(gps.records.size(), 5U);
  const Fix& fix = gps.records[0];
  ASSERT_TRUE(fix.isValid);
  EXPECT_EQ(fix.utcMs, 1'795'268'405'250) << "whatever the time zone of the machine";
  EXPECT_NEAR(fix.latitude, -48.1178767, 1e-7);
  EXPECT_NEAR(fix.longitude, -11.5167, 1e-7);
  EXPECT_DOUBLE_EQ(fix.speedKnots, 24.36);
  for (std::size_t i = 1; i < 5; ++i) {
    EXPECT_FALSE(gps.records[i].isValid) << "entry " << i;
    EXPECT_DOUBLE_EQ(gps.records[i].secondsFromEvent, -2.5 + static_cast<double>(i) / 2.0) << "it keeps its place";
  }
}

TEST(SensorFilesTest, AccelerationsAreInGWithoutGravityAndATenthOfABlockApart) {
  std::string block;
  for (int i = 0; i < 10; ++i) block += "\x20\x10\xF0"s;
  const auto acc = ParseAcc(MakeEntry(block) + MakeEntry(block), {-1.0, 10.0});
  ASSERT_EQ(acc.records.size(), 20U);
  EXPECT_THAT(acc.records[19].g, testing::ElementsAre(0.0, 0.5, -0.5));
  EXPECT_NEAR(acc.records[19].secondsFromEvent, -0.81, 1e-9);
}

// Entries at their rate's places where a companion tells that the source had stood still.
TEST(SensorFilesTest, ACompanionTellsWhenEachEntryWas) {
  const std::string text = "times 1 10 counted\n-1000000000 -\n500000000 7\n6000";
  TimeBase base{-9.0, 10.0};
  ReadCompanion(text, base);
  ASSERT_EQ(base.seconds.size(), 2U) << "the last line is cut";
  const std::string block = MakeEntry(std::string(30, '\x20'));
  const auto acc = ParseAcc(block + block + block, base);
  ASSERT_EQ(acc.records.size(), 30U);
  EXPECT_NEAR(acc.records[1].secondsFromEvent, -0.99, 1e-9);
  EXPECT_NEAR(acc.records[10].secondsFromEvent, 0.5, 1e-9);
  EXPECT_NEAR(acc.records[20].secondsFromEvent, 0.6, 1e-9);
  base.rate = 1.0;
  const auto gps = ParseGps(MakeEntry("") + MakeEntry("") + MakeEntry(""), base);
  EXPECT_NEAR(gps.records.at(2).secondsFromEvent, 1.5, 1e-9);
  TimeBase none;
  ReadCompanion("[{}]", none);
  EXPECT_TRUE(none.seconds.empty());
}

// Catches qualities that go to the neighbour's fix, and a height or an accuracy that nobody has measured.
TEST(SensorFilesTest, ACompanionTellsHowGoodEachFixWas) {
  TimeBase base;
  ReadCompanion("times 1 1 counted\n0 - 0.9 8 -12.4\n1 -\n2 - 1.5 x -\n3 - nan -1 inf\n4 5 6.5 12 0.5\n", base);
  const std::string fix = MakeRmc("134005.00,A,4807.0726,N,01131.0020,E,1.0,,211126,,,A");
  const auto gps = ParseGps(
      fix + fix + fix + fix + MakeEntry("") + MakeRmc("134010.00,A,4807.0726,N,01131.0020,E,1.0,,211126,,,D"), base);
  EXPECT_EQ(gps.problem, "");
  ASSERT_EQ(gps.records.size(), 6U);
  EXPECT_EQ(gps.records[0].hdop, 0.9);
  EXPECT_EQ(gps.records[0].satellites, 8);
  EXPECT_EQ(gps.records[0].altitudeMetres, -12.4);
  EXPECT_EQ(gps.records[2].hdop, 1.5);
  for (const std::size_t i : {1, 3, 4, 5}) EXPECT_FALSE(gps.records[i].hdop) << "entry " << i;
  for (const std::size_t i : {1, 2, 3, 4, 5}) {
    EXPECT_FALSE(gps.records[i].satellites || gps.records[i].altitudeMetres) << "entry " << i;
    EXPECT_EQ(gps.records[i].isDifferential, i == 5);
  }
}

// Catches a cold morning that a person reads as 251 degrees.
TEST(SensorFilesTest, UnknownTemperaturesAreEmptyAndThoseBelowZeroAreNegative) {
  const auto other = ParseOther(R"([{"cpu_usage":16,"temperature":0},{"cpu_usage":17,"temperature":47}])", {0.0, 1.0});
  ASSERT_EQ(other.records.size(), 2U);
  EXPECT_FALSE(other.records[0].temperatureCelsius);
  EXPECT_EQ(other.records[1].temperatureCelsius, 47);
  EXPECT_EQ(other.records[1].cpuPercent, 17);
  for (const auto& [stored, degrees] : {std::pair(251, -5), std::pair(128, -128), std::pair(127, 127)}) {
    const auto cold = ParseOther(R"([{"cpu_usage":1,"temperature":)" + std::to_string(stored) + "}]", {0.0, 1.0});
    EXPECT_EQ(cold.records.at(0).temperatureCelsius, degrees);
  }
}

// Catches reading beyond the end, a length taken on trust, and whole entries lost with a damaged one behind them.
TEST(SensorFilesTest, DamageLeavesTheWholeEntriesBeforeIt) {
  const std::string rmc = MakeRmc("134005.00,A,4807.0726,N,01131.0020,E,24.36,0.0,211126,,,A");
  const std::string block = MakeEntry(std::string(30, '\x20'));
  const std::string sample = R"({"cpu_usage":16,"temperature":40})";
  struct Case {
    char sensor;
    std::string bytes;
    std::size_t records;
    std::string problem;
  };
  const Case cases[] = {
      {'g', "", 0, ""},
      {'g', rmc + rmc.substr(0, 3), 1, "entry 2 is cut off"},
      {'g', rmc + rmc.substr(0, rmc.size() - 1), 1, "entry 2 is cut off"},
      {'g', rmc + "\xFF\xFF\xFF\xFF" + rmc, 1, "entry 2 cannot be 4294967295 bytes long"},
      {'g', MakeEntry("$GNRMC,1*00") + rmc, 2, "entry 1 is no RMC sentence"},
      {'g', MakeEntry("\0\0*"s) + MakeEntry(std::string(99, ',')) + rmc, 3, "entry 1 is no RMC sentence"},
      {'a', block + block.substr(0, 20), 10, "entry 2 is cut off"},
      {'a', block + MakeEntry(std::string(29, ' ')) + block, 10, "entry 2 cannot be 29 bytes long"},
      {'a', std::string(1000, '\xAA'), 0, "entry 1 cannot be 2863311530 bytes long"},
      {'o', "[" + sample + "," + sample.substr(0, 9), 1, "it is cut off or damaged"},
      {'o', "", 0, "it is cut off or damaged"},
      {'o', std::string(100'000, '['), 0, "it is cut off or damaged"},
      {'o', sample, 0, "it is no array of samples"},
      {'o', "[" + sample + ",7,{\"cpu_usage\":1e99}," + sample + "]", 4, "entry 2 is no sample"},
  };
  const auto check = [](const Case& wanted, const auto& got) {
    EXPECT_EQ(got.records.size(), wanted.records) << wanted.sensor << " " << wanted.problem;
    EXPECT_EQ(got.problem, wanted.problem) << wanted.sensor;
  };
  for (const Case& wanted : cases) {
    if (wanted.sensor == 'g') check(wanted, ParseGps(wanted.bytes, {}));
    if (wanted.sensor == 'a') check(wanted, ParseAcc(wanted.bytes, {}));
    if (wanted.sensor == 'o') check(wanted, ParseOther(wanted.bytes, {}));
  }
}

}  // namespace
