// From the receiver's text to the ring, and from the ring to the event's file.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <memory>

#include "Support/Media.h"
#include "Support/Nmea.h"
#include "Tavi/Gps/GpsPipelineCbElement.h"
#include "Tavi/Gps/GpsPipelineCollect.h"
#include "Tavi/Gps/GpsPipelineElement.h"
#include "Tavi/GstUtil/BufferMap.h"

namespace {

using namespace Tavi::Gps;
using Tavi::GstUtil::BufferMap;

std::string Epoch(const std::string& speed, const std::string& hdop, char status = 'A') {
  return MakeSentence("GPRMC,120000.00," + std::string(1, status) + ",4807.0380,N,01131.0000,E," + speed +
                      ",84.4,230326,,") +
         MakeSentence("GPGGA,120000.00,4807.0380,N,01131.0000,E,1,08," + hdop + ",545.4,M,46.9,M,,");
}

class GpsElementTest : public Tavi::Testing::MediaTest {
 protected:
  static void Deliver(GpsPipelineElement& gps, std::string text) { gps.Invoke(nullptr, text.data()); }
};

TEST_F(GpsElementTest, EveryBlockBecomesOneStampedFixValidOrNot) {
  GpsConfig config;
  config.rate = 5;
  GpsPipelineElement gps(config, 4);
  const std::string blocks[] = {Epoch("30.5", "0.9"),      "",
                                "\n\r\nrubbish,*\n",       Epoch("20.0", "10.1"),
                                Epoch("40.0", "1.0", 'V'), Epoch("131.5", "1.2")};
  const bool valid[] = {true, false, false, false, false, true};
  for (std::size_t i = 0; i < std::size(blocks); ++i) {
    Deliver(gps, blocks[i]);
    const auto entry = gps.RetrieveCurrent();
    const auto& fix = dynamic_cast<const GpsPipelineCbElement&>(*entry);
    ASSERT_EQ(fix.frameId, i);
    EXPECT_EQ(GST_BUFFER_PTS(fix.buffer), i * 200 * GST_MSECOND);
    EXPECT_EQ(GST_BUFFER_DURATION(fix.buffer), 200 * GST_MSECOND);
    const BufferMap map(&fix);
    ASSERT_EQ(map.GetBytes().size(), 264U);
    const auto* record = map.GetRecord<GpsData>();
    EXPECT_EQ(record->isValidPackage != 0, valid[i]) << i;
    if (blocks[i].size() < 20) {
      EXPECT_EQ(record->HDOP, 100.0);
      EXPECT_STREQ(record->gprmc_line, "");
    } else {
      EXPECT_EQ(blocks[i].substr(0, blocks[i].find('\r')), record->gprmc_line) << "without its line end";
    }
  }
  EXPECT_EQ(CountLogged("Aquisition for gps has been started"), 1);
}

TEST_F(GpsElementTest, TheFileHoldsEverySentenceAndTheSpeedOnlyThatOfValidFixes) {
  GpsPipelineElement gps(GpsConfig(), 8);
  GpsPipelineCollect collect(&gps, true);
  Tavi::PipelineCollect::PipelineCollectConfig config{0, 0, m_dir};
  std::string expected;
  const std::string blocks[] = {Epoch("30.5", "0.9"), "", Epoch("90.0", "99.9"), Epoch("12.0", "0.9")};
  for (const double speed : {30.5, -1.0}) {
    collect.Init(config);
    EXPECT_EQ(collect.GetMaxSpeed(), -1.0);
    const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen((m_dir + "out").c_str(), "a"), std::fclose);
    for (const auto& block : blocks) {
      if (speed < 0.0 && &block != &blocks[2]) continue;
      Deliver(gps, block);
      EXPECT_TRUE(collect.Write(file.get(), gps.RetrieveCurrent().get()));
      const std::string sentence = block.substr(0, block.find('\r'));
      expected += std::string{static_cast<char>(sentence.size()), 0, 0, 0} + sentence;
    }
    GpsPipelineCollect twin(nullptr, true);
    collect.CopyTo(&twin);
    EXPECT_EQ(twin.GetMaxSpeed(), speed);
  }
  EXPECT_EQ(Tavi::Testing::ReadFile(m_dir + "out"), expected);
  Tavi::GstUtil::GstPipelineCbElement foreign(0, Tavi::Testing::MakeBuffer(std::string(264, 'x'), 0), "acc");
  GpsPipelineCbElement cut(0, Tavi::Testing::MakeBuffer("short", 0));
  EXPECT_FALSE(collect.Write(stdout, &foreign) || collect.Write(stdout, &cut) || collect.Write(stdout, nullptr));
}

// Catches a note that makes two lines of one, or says 0 of what no sentence has told.
TEST_F(GpsElementTest, TheCompanionSaysWhatTheSentenceHasNoFieldFor) {
  GpsPipelineElement gps(GpsConfig(), 8);
  const GpsPipelineCollect collect(&gps, true);
  const std::string blind = Epoch("30.5", "0.9").substr(0, Epoch("30.5", "0.9").find('\n') + 1);
  for (const auto& [text, note] :
       {std::pair(Epoch("30.5", "0.9"), "0.9 8 545.4"), {Epoch("1.0", ""), ""}, {blind, ""}}) {
    Deliver(gps, text);
    EXPECT_EQ(collect.Annotate(gps.RetrieveCurrent().get()), note) << text;
  }
  EXPECT_EQ(collect.Annotate(nullptr), "");
}

// A unit that is set by a log of last year, or by a fix that is none.
TEST_F(GpsElementTest, TheReceiversTimeIsThatOfALiveFix) {
  const std::string text = Epoch("30.5", "0.9") + MakeSentence("GPRMC,120001.25,V,,,,,,,230326,,");
  std::ofstream(m_dir + "log") << text;
  ASSERT_EQ(mkfifo((m_dir + "fifo").c_str(), 0600), 0);
  for (const bool isLive : {false, true}) {
    GpsConfig config;
    config.path = m_dir + (isLive ? "fifo" : "log");
    GpsPipelineElement gps(config, 4);
    const auto before = std::chrono::steady_clock::now() - std::chrono::milliseconds(2);
    gps.Start();
    if (isLive) std::ofstream(config.path) << text;
    ASSERT_TRUE(Tavi::Testing::WaitUntil([&] { return gps.GetCurrentFrameId() == 1; }));
    const auto time = gps.ReadTime();
    gps.Stop();
    ASSERT_EQ(time.has_value(), isLive);
    if (!time) continue;
    EXPECT_EQ(time->utcMs, 1'774'267'200'000) << "the one without a fix is none";
    EXPECT_GE(time->arrival, before);
    EXPECT_LE(time->arrival, std::chrono::steady_clock::now());
  }
}

}  // namespace
