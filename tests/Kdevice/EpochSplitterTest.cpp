// Epochs and their pace: one block per RMC, whatever order, damage and chunks the text comes in.
#include "Kdevice/GpsDevice/EpochSplitter.h"

#include <gtest/gtest.h>

#include <numeric>
#include <sstream>

#include "Kdevice/GpsDevice/LogReplay.h"
#include "Support/Fixtures.h"
#include "Support/Nmea.h"

namespace {

using namespace Kdevice::GpsDevice;
using namespace std::chrono_literals;
using Blocks = std::vector<std::string>;

const std::string R1 = MakeSentence("GPRMC,101501,A,4807.038,N"), R2 = MakeSentence("GPRMC,101502"),
                  G1 = MakeSentence("GPGGA,101501");

struct Split {
  Blocks blocks;
  EpochSplitter splitter{[this](const EpochSplitter::Epoch& epoch) { blocks.emplace_back(epoch.text); }};
};

Blocks SplitText(const std::string& text, std::size_t chunk = 1 << 20) {
  Split split;
  for (std::size_t at = 0; at < text.size(); at += chunk) split.splitter.Feed(std::string_view(text).substr(at, chunk));
  return split.splitter.Flush(), split.blocks;
}

TEST(EpochSplitter, GivesOneBlockPerRmcWhateverTheOrderAndTheDamage) {
  // "@" is 10:15:0, "!" has no checksum, "|" is where a block ends.
  for (const char* text :
       {"RMC,@1 GGA,@1.00 GSV,1 | RMC,@2 GGA,@2 GSV,1", "VTG,1 RMC,@1 | GGA,@2 GSV,1 RMC,@2 | GGA,@3 GSV,1 RMC,@3.0",
        "GGA,, GSV,1 RMC,, VTG,1 | GGA,, RMC,, VTG,1", "RMC,, | RMC,,", "RMC,@1 GGA,@1 | RMC,@1 GGA,@1",
        "RMC,@1 ZDA,@1.37 GGA,@1 | RMC,@2 ZDA,@2.37 GGA,@2", "RMC,@1 GNRMC,@1 GNS,@1 GNS,@1 GGA,@1 | RMC,@2",
        "RMC,@1 GGA,@1 | RMC,@2,! GGA,@2 | RMC,@3 GGA,@3", "GGA,@1 RMC,@1 | GGA,@2 RMC,@2,! | GGA,@3 RMC,@3",
        "RMC,@1 GLL,,,,,@9,! GGA,@1 | RMC,@2", "PGRMC,A PGRMC,A GGA,@1 RMC,@1"}) {
    std::istringstream words(text);
    Blocks expected(1);
    for (std::string word; words >> word;) {
      if (word == "|") expected.emplace_back();
      if (word.size() == 1) continue;
      if (word[3] == ',') word.insert(0, "GP");
      if (const auto at = word.find('@'); at != std::string::npos) word.replace(at, 1, "10150");
      expected.back() += word.back() == '!' ? "$" + word + "\r\n" : MakeSentence(word);
    }
    EXPECT_EQ(SplitText(std::accumulate(expected.begin(), expected.end(), std::string())), expected) << text;
  }
}

TEST(EpochSplitter, TakesWholeEpochsOutOfNoise) {
  const std::string bare = R1.substr(0, R1.size() - 2), part = R2.substr(0, 12), end = "\r\n";
  const std::string text = "$GPTXT," + std::string(10'000, 'x'), cut = text.substr(0, 1024) + end;
  EXPECT_EQ(SplitText(MakeSentence("GPGGA,101500") + R1 + G1 + MakeSentence("GPGGA,101503")), Blocks{R1 + G1});
  EXPECT_EQ(SplitText("# $GPRMC,\n" + bare + "\n" + G1 + "\n" + part), Blocks{R1 + G1});
  EXPECT_EQ(SplitText(std::string(R1).insert(20, std::string("\0\x01\x7F\x80\xFF\t", 6)) + "x$"), Blocks{R1});
  EXPECT_EQ(SplitText(part + G1 + text + bare), (Blocks{part + end + G1 + cut, R1}));
}

TEST(EpochSplitter, APauseGivesTheEpochAwayOnceAndLateSentencesMakeNoSecondOne) {
  Split split;
  const auto feed = [&](const std::string& text, std::chrono::milliseconds pause) {
    split.splitter.Feed(text);
    return split.splitter.Pause(pause), split.blocks.size();
  };
  EXPECT_EQ(feed(G1 + MakeSentence("GPGSV,1"), 1h), 0U) << "no RMC";
  EXPECT_EQ(feed(R1, 99ms), 0U);
  EXPECT_EQ(feed("$GPV", 100ms), 1U);
  EXPECT_EQ(feed("TG,1" + G1, 1h), 1U) << "late";
  EXPECT_EQ(feed(R2, 1499ms), 1U);
  EXPECT_EQ(feed("", 1500ms), 2U);
  EXPECT_EQ(feed(MakeSentence("GPGGA,101502"), 1h), 2U) << "late";
  EXPECT_EQ((split.splitter.Flush(), split.blocks), (Blocks{G1 + MakeSentence("GPGSV,1") + R1, R2}));
}

TEST(EpochSplitter, RealReceiversGiveOneBlockPerRmcInAnyChunks) {
  // RMC sentences, intact or not, counted by other means. One in the coldboot log has lost its "$" and does not count.
  std::istringstream logs("haicom-305N 74 rx210 62 skytraq-dgps 96 gp-320fw-2019-04-07-coldboot 21 telit-he910 224");
  if (!std::filesystem::exists(TAVI_NMEA_LOGS)) GTEST_SKIP() << "no receiver logs at " TAVI_NMEA_LOGS;
  for (std::string name, count; logs >> name >> count;) {
    const std::string text = Tavi::Testing::ReadFile(TAVI_NMEA_LOGS + name + ".log");
    EXPECT_EQ(std::to_string(SplitText(text).size()), count) << name;
    for (const std::size_t chunk : {1, 7}) EXPECT_EQ(SplitText(text, chunk), SplitText(text)) << name;
  }
}

TEST(LogReplay, KeepsThePaceOfTheTimeStampsWithoutDrift) {
  struct : Kbase::Util::IClock {
    Milliseconds now{0};
    Milliseconds Now() override { return now; }
    void Sleep(Milliseconds duration) override { now += duration; }
  } clock;
  FILE* file = std::tmpfile();
  std::istringstream times(
      "101501.00 101502.50 101502.50 101501 x 101503 101513 101524 1015 235959.5 000000.300 000001");
  for (std::string time; times >> time;) std::fputs(MakeSentence("GPRMC," + time).c_str(), file);
  std::rewind(file);
  std::vector<long> moments;
  const auto wait = [&](auto duration) { return clock.Sleep(duration), moments.size() == 11; };
  LogReplay replay(clock, 1, wait, [&](const EpochSplitter::Epoch&) {
    moments.push_back(clock.now.count());
    clock.Sleep(5ms);
  });
  EXPECT_TRUE(replay.Play(fileno(file)));
  EXPECT_EQ(moments, (std::vector<long>{0, 1500, 2500, 3500, 4500, 5500, 15500, 16500, 17500, 18500, 19300}));
  std::fclose(file);
}

}  // namespace
