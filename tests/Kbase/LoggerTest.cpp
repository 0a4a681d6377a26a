// The logger: its line format, its file sink, and that flushing loses nothing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <thread>
#include <vector>

#include "Kbase/Klog/Logger.h"
#include "Kbase/Util/TemperatureMonitor.h"
#include "Support/Fixtures.h"

namespace {

using Kbase::Klog::Logger;
using Kbase::Util::TemperatureMonitor;
using testing::MatchesRegex;

class LoggerTest : public Tavi::Testing::TempDirTest {
 protected:
  void TearDown() override {
    Logger::GetInstance().SetFile("");
    TempDirTest::TearDown();
  }
  std::vector<std::string> ReadLines() const {
    std::ifstream file(m_dir + "log");
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    return lines;
  }
};

#define DATE "\\[[0-9]+-[0-9]+-[0-9]+ [0-9]+:[0-9]+:[0-9]+\\]"

TEST_F(LoggerTest, WritesOneLineFormatWithLevelTagAndTemperature) {
  Logger& logger = Logger::GetInstance();
  ASSERT_TRUE(logger.SetFile(m_dir + "log"));
  logger.Info("Tavi", "Aquisition for camera0 has been started");
  logger.Warning("Tavi", "w");
  logger.Error("Kbase", "e");
  std::ofstream(m_dir + "zone") << "47321\n";
  TemperatureMonitor monitor(m_dir + "zone");
  ASSERT_TRUE(monitor.Start());
  while (!TemperatureMonitor::Known()) std::this_thread::yield();
  logger.Error("Tavi", "hot");
  monitor.Stop();
  EXPECT_FALSE(logger.SetFile("/proc/none/log")) << "the old file stays";
  logger.Info("Tavi", "not known any more");
  logger.Flush();
  EXPECT_THAT(ReadLines(), testing::ElementsAre(MatchesRegex(DATE "\\[Tavi\\] Aquisition for camera0 has been started"),
                                                MatchesRegex(DATE "\\[WARNING\\]\\[Tavi\\] w"),
                                                MatchesRegex(DATE "\\[ERROR\\]\\[Kbase\\] e"),
                                                MatchesRegex(DATE "\\[47C\\]\\[ERROR\\]\\[Tavi\\] hot"),
                                                MatchesRegex(DATE "\\[Tavi\\] not known any more")));
}

TEST_F(LoggerTest, FlushWhileManyThreadsLogLosesNoLine) {
  Logger& logger = Logger::GetInstance();
  ASSERT_TRUE(logger.SetFile(m_dir + "log"));
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int line = 0; line < 500; ++line) logger.Info("Tavi", "line");
    });
  }
  for (int i = 0; i < 20; ++i) logger.Flush();
  for (auto& thread : threads) thread.join();
  logger.Flush();
  EXPECT_EQ(ReadLines().size(), 2000U);
}

}  // namespace
