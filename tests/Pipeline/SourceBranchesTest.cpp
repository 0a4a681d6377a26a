// Where the pipeline's time is when its clock has to be another.
#include "Tavi/Pipeline/SourceBranches.h"

#include <gtest/gtest.h>

#include <map>
#include <thread>

#include "Support/Media.h"

namespace Tavi::Pipeline {
namespace {

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using Testing::TestRing;
using Clock = std::chrono::steady_clock;

constexpr milliseconds Period{20};

class SourceBranchesTest : public Testing::MediaTest {
 protected:
  /// Camera and, unless it is silent, sound deliver for so long, with time stamps of a clock of that speed.
  void Deliver(milliseconds length, double speed, bool withSound) {
    const auto begin = Clock::now();
    while (Clock::now() - begin < length) {
      std::this_thread::sleep_for(Period);
      m_clockNs = m_offsetNs +
                  static_cast<double>(duration_cast<std::chrono::nanoseconds>(Clock::now() - begin).count()) * speed;
      AddMedia(*m_rings[PipelineType::Camera1], static_cast<GstClockTime>(m_clockNs));
      if (withSound) AddMedia(*m_rings[PipelineType::Audio], static_cast<GstClockTime>(m_clockNs));
    }
    m_offsetNs = m_clockNs;
  }
  [[nodiscard]] double GetRunningSeconds() const { return static_cast<double>(m_branches.GetRunningTime()) / 1e9; }
  [[nodiscard]] double GetClockSeconds() const { return m_clockNs / 1e9; }

 private:
  std::map<PipelineType, std::shared_ptr<TestRing>> m_rings{{PipelineType::Camera1, std::make_shared<TestRing>(500)},
                                                            {PipelineType::Audio, std::make_shared<TestRing>(500)}};
  const PipelineConfig m_config;
  const SourceBranches m_branches{m_config, [this](PipelineType type) {
                                    const auto found = m_rings.find(type);
                                    return found == m_rings.end() ? nullptr : found->second;
                                  }};
  double m_offsetNs = 0.0;
  double m_clockNs = 0.0;
};

// Catches pictures of before that seem seconds older than they are once the sound card is gone: its clock went slow, as
// that of a card does which loses samples.
TEST_F(SourceBranchesTest, ASlowClockGoesOnWhereItWas) {
  Deliver(milliseconds(3000), 0.4, true);
  // From the ring's begin it would be 1.8 s more.
  EXPECT_NEAR(GetRunningSeconds(), GetClockSeconds() + 0.3, 0.6);
}

// Catches a time that stood still with the sound card and is not made up for.
TEST_F(SourceBranchesTest, AClockThatStoodStillIsMadeUpFor) {
  Deliver(milliseconds(800), 1.0, true);
  Deliver(milliseconds(1200), 0.0, false);
  EXPECT_NEAR(GetRunningSeconds(), GetClockSeconds() + 1.2, 0.3);
}

}  // namespace
}  // namespace Tavi::Pipeline
