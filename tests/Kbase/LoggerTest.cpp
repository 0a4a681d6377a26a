// The logger: its line format, its file sink, and that flushing loses nothing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fmt/format.h>

#include <filesystem>
#include <fstream>
#include <set>
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

// Catches lines that are lost or written twice while the file is turned over by its size, and by somebody else who
// renames it and asks for a new one; a file that grows beyond its limit, or old ones beyond their number.
TEST_F(LoggerTest, TurningTheFileOverUnderLoadLosesNoLine) {
  constexpr std::size_t MaxBytes = 20'000;
  constexpr int Threads = 4;
  constexpr int Lines = 1500;
  Logger& logger = Logger::GetInstance();
  logger.SetConsole(false);
  ASSERT_TRUE(logger.SetFile(m_dir + "log", {MaxBytes, 1000}));
  std::vector<std::thread> threads;
  for (int thread = 0; thread < Threads; ++thread) {
    threads.emplace_back([&logger, thread] {
      for (int line = 0; line < Lines; ++line) logger.Info("Tavi", fmt::format("thread {} line {}", thread, line));
    });
  }
  for (int i = 0; i < 20; ++i) {
    std::error_code isBetweenTwo;
    std::filesystem::rename(m_dir + "log", m_dir + "renamed" + std::to_string(i), isBetweenTwo);
    logger.ReopenFile();
    std::this_thread::yield();
  }
  for (auto& thread : threads) thread.join();
  logger.Info("Tavi", "the last");
  logger.Flush();
  ASSERT_FALSE(ReadLines().empty());
  EXPECT_THAT(ReadLines().back(), testing::HasSubstr("the last")) << "the file is where it was asked for";
  std::multiset<std::string> lines;
  int files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(m_dir)) {
    EXPECT_LE(entry.file_size(), MaxBytes) << entry.path();
    ++files;
    std::ifstream file(entry.path());
    for (std::string line; std::getline(file, line);) lines.insert(line.substr(line.rfind(']') + 2));
  }
  EXPECT_GT(files, 10);
  EXPECT_EQ(lines.size(), Threads * Lines + 1U);
  for (int thread = 0; thread < Threads; ++thread) {
    for (int line = 0; line < Lines; ++line) {
      ASSERT_EQ(lines.count(fmt::format("thread {} line {}", thread, line)), 1U) << thread << " " << line;
    }
  }
  ASSERT_TRUE(logger.SetFile(m_dir + "unlimited"));
  // The second time something is in the way: lines go on into the file before.
  for (const std::string name : {"first", "second"}) {
    logger.Info("Tavi", "before");
    logger.Flush();
    std::filesystem::rename(m_dir + "unlimited", m_dir + name);
    if (name == "second") std::filesystem::create_directory(m_dir + "unlimited");
    logger.ReopenFile();
    logger.Info("Tavi", "after");
    logger.Flush();
  }
  EXPECT_THAT(Tavi::Testing::ReadFile(m_dir + "first"), MatchesRegex(DATE "\\[Tavi\\] before\n"));
  EXPECT_THAT(Tavi::Testing::ReadFile(m_dir + "second"),
              MatchesRegex(DATE "\\[Tavi\\] after\n" DATE "\\[Tavi\\] before\n" DATE "\\[Tavi\\] after\n"));
  ASSERT_TRUE(logger.SetFile(m_dir + "few", {1000, 2}));
  for (int line = 0; line < 200; ++line) logger.Info("Tavi", "another line");
  logger.Flush();
  EXPECT_TRUE(std::filesystem::exists(m_dir + "few.2"));
  EXPECT_FALSE(std::filesystem::exists(m_dir + "few.3"));
  logger.SetConsole(true);
}

}  // namespace
