// The machine's state: measured, stamped, and written as JSON.
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>

#include "Kbase/Util/CpuMonitor.h"
#include "Kbase/Util/TemperatureMonitor.h"
#include "Kbase/Util/Timer.h"
#include "Support/Media.h"
#include "Tavi/Other/OtherPipelineCbElement.h"
#include "Tavi/Other/OtherPipelineCollect.h"
#include "Tavi/Other/OtherPipelineElement.h"

namespace {

using namespace Tavi::Other;
using Tavi::Testing::WaitUntil;

class OtherTest : public Tavi::Testing::MediaTest {};

// Catches sums that count guest time twice, a counter that runs backwards, and a division by nothing.
TEST_F(OtherTest, UsageIsTheBusyShareSinceTheLastMeasurement) {
  const std::string path = m_dir + "stat";
  Kbase::Util::CpuMonitor monitor(path);
  EXPECT_EQ(monitor.Measure(), 0) << "no counters";
  const std::pair<const char*, int> steps[] = {
      {"cpu  100 0 100 200 0 0 0 0 0 0\ncpu0 1 1 1 1\n", 50},
      {"cpu  150 10 115 250 50 10 10 5 150 10\n", 50},  // 100 of 200 busy, guest time being part of user time
      {"cpu  150 10 115 250 50 10 10 5 150 10\n", 50},  // nothing counted in between
      {"cpu  249 10 115 251 50 10 10 5 150 10\n", 99},
      {"cpu  249 10 115 240 161 10 10 5 150 10\n", 0},  // idle time that moved to another column
      {"cpu  349 10 115 200 161 10 10 5 150 10\n", 100},
      {"rubbish", 0},
  };
  for (const auto& [text, usage] : steps) {
    std::ofstream(path) << text;
    EXPECT_EQ(monitor.Measure(), usage) << text;
  }
}

// Catches a timer that drifts by what its calls take, makes up for missed ones in a burst, or outlives its owner.
TEST_F(OtherTest, TheTimerKeepsItsGridAndMissedCallsAreNotMadeUp) {
  std::atomic<int> calls{0};
  const auto begin = std::chrono::steady_clock::now();
  const auto elapsedMs = [&] {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count();
  };
  std::vector<double> times;
  {
    Kbase::Util::Timer timer(
        50,
        [&](Kbase::Util::Timer*) {
          times.push_back(elapsedMs());
          if (++calls == 2) std::this_thread::sleep_for(std::chrono::milliseconds(175));
        },
        nullptr, 16384);
    EXPECT_TRUE(WaitUntil([&] { return calls >= 5; }));
  }
  const int after = calls;
  // One call that the machine let wait may have the next one close behind it.
  int close = 0;
  for (std::size_t i = 1; i < times.size(); ++i) close += times[i] - times[i - 1] < 5.0 ? 1 : 0;
  EXPECT_LE(close, 1) << "a burst";
  EXPECT_GE(times[2], 275.0);
  EXPECT_LE(after, elapsedMs() / 50.0 + 1);
  std::this_thread::sleep_for(std::chrono::milliseconds(120));
  EXPECT_EQ(calls, after);
}

TEST_F(OtherTest, SamplesCarryTheStatedRateAndOneStartMessage) {
  OtherConfig config;
  config.rate = 2;
  OtherPipelineElement element(config, 8);
  element.Stop();
  for (int start = 0; start < 2; ++start) {
    element.Start();
    for (int i = 0; i < 3; ++i) element.Tick(nullptr);
    element.Stop();
    element.Stop();
  }
  for (unsigned int i = 0; i < 6; ++i) {
    const auto entry = element.GetElementAt(i);
    const auto& sample = dynamic_cast<const OtherPipelineCbElement&>(*entry);
    EXPECT_EQ(GST_BUFFER_PTS(sample.buffer), i % 3 * GST_SECOND / 2) << "time begins at 0 with each start";
    EXPECT_EQ(GST_BUFFER_DURATION(sample.buffer), GST_SECOND / 2);
    EXPECT_EQ(gst_buffer_get_size(sample.buffer), 4U);
  }
  EXPECT_EQ(CountLogged("Aquisition (other) has been started"), 1);
}

// Catches the two bytes swapped, one that is never set, and a temperature below zero that is cut to nothing.
TEST_F(OtherTest, ASampleIsLoadThenTheTemperaturesLowBits) {
  for (const auto& [millidegrees, byte] : {std::pair("47300", 47), std::pair("-5000", 251)}) {
    std::ofstream(m_dir + "zone") << millidegrees << std::flush;
    Kbase::Util::TemperatureMonitor monitor(m_dir + "zone");
    ASSERT_TRUE(monitor.Start());
    ASSERT_TRUE(WaitUntil([] { return Kbase::Util::TemperatureMonitor::Known().has_value(); }));
    OtherPipelineElement element(OtherConfig(), 8);
    element.Tick(nullptr);
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(150);
    while (std::chrono::steady_clock::now() < end) continue;  // load
    element.Tick(nullptr);
    std::uint8_t bytes[2] = {};
    const auto entry = element.RetrieveCurrent();
    gst_buffer_extract(dynamic_cast<const OtherPipelineCbElement&>(*entry).buffer, 0, bytes, sizeof(bytes));
    EXPECT_GT(bytes[0], 0);
    EXPECT_LE(bytes[0], 100);
    EXPECT_EQ(bytes[1], byte);
  }
}

TEST_F(OtherTest, ACollectIsOneArrayWithoutTheLastEventsSamples) {
  OtherPipelineElement ring(OtherConfig(), 8);
  OtherPipelineCollect collect(&ring, false);
  Tavi::GstUtil::GstPipelineCbElement foreign(0, Tavi::Testing::MakeBuffer("xy", 0), "video");
  for (int event = 0; event < 2; ++event) {
    Tavi::PipelineCollect::PipelineCollectConfig config{0, 0, m_dir};
    collect.Init(config);
    EXPECT_FALSE(collect.Write(nullptr, &foreign));
    for (const char temperature : {char{41}, char{42}}) {
      OtherPipelineCbElement sample(0, Tavi::Testing::MakeBuffer({7, temperature, 0, 0}, 0));
      EXPECT_TRUE(collect.Write(nullptr, &sample));
    }
    const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen((m_dir + "out").c_str(), "w"), std::fclose);
    EXPECT_TRUE(collect.WriteFooter(file.get()));
  }
  EXPECT_EQ(Tavi::Testing::ReadFile(m_dir + "out"),
            R"([{"cpu_usage":7,"temperature":41},{"cpu_usage":7,"temperature":42}])");
}

}  // namespace
