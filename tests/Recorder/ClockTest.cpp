// The service while its wall clock is set.
#include <csignal>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>

#include "Recorder/Program.h"

namespace {

using namespace Tavi::Testing;
using nlohmann::json;

class ClockTest : public ServiceProgramTest {
 protected:
  json ReadSources() const { return Ctl("status").value("sources", json::object()); }
  bool WaitForEntries(const char* source, int count) const {
    return WaitUntil([&] {
      const json sources = ReadSources();
      return sources.contains(source) && sources[source]["entries"] >= count;
    });
  }
};

// Catches a source, a restart or an end that waits by the wall clock: set back, it would wait for an hour.
TEST_F(ClockTest, SetForthAndBackNoSourceFallsSilentAndSigtermEndsInTime) {
#ifndef FAST_CLOCK
  GTEST_SKIP() << "the sanitizers define the functions of the preloaded clock themselves";
#else
  std::ofstream(m_dir + "settings.json") << "{}";
  for (const char* step : {"3600@8", "-3600@8", "820540800@8"}) {  // so many seconds off, for the first eight
    setenv("LD_PRELOAD", FAST_CLOCK, 1);
    setenv("TAVI_CLOCK_STEP", step, 1);
    m_child = Spawn({"run", "--simulate", "--config", m_dir + "settings.json", "--output", m_dir + "tavi", "--control",
                     m_dir + "ctl/socket"});
    unsetenv("LD_PRELOAD");
    unsetenv("TAVI_CLOCK_STEP");
    ASSERT_TRUE(WaitForEntries("other", 14)) << step << Err();
    const json before = ReadSources();
    ASSERT_TRUE(WaitForEntries("other", before["other"]["entries"].get<int>() + 3));
    for (const char* source : {"camera0", "camera1", "audio", "gps", "acc", "other"}) {
      json after;
      EXPECT_TRUE(WaitUntil([&] {
        after = ReadSources()[source];
        return after["state"] == "running" && after["entries"] > before[source]["entries"];
      })) << step
          << source << after;
      EXPECT_EQ(after.value("revivals", 0), 0) << step << source;
    }
    const auto begin = std::chrono::steady_clock::now();
    kill(m_child, SIGTERM);
    EXPECT_EQ(Wait(std::exchange(m_child, 0)), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30)) << step;
  }
#endif
}

}  // namespace
