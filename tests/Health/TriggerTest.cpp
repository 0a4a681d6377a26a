// The acceleration trigger, its guard, and both in the simulated car.
#include <gtest/gtest.h>

#include <cmath>

#include "Recorder/Health/Health.h"
#include "Recorder/Triggers/TriggerWatch.h"
#include "Simulator/SimulatedCar.h"
#include "Support/Media.h"
#include "Tavi/Pipeline/PipelineManager.h"

namespace Tavi::Recorder::Triggers {
namespace {

using Pipeline::PipelineType;
using Vector = std::array<double, 3>;

struct Ride {
  const char* name;
  /// What the axes show at a moment, without the pulses.
  std::function<Vector(double)> base;
  /// From, to, and how many g along the third axis.
  std::vector<Vector> pulses;
  /// When the trigger is told to fire; it does by the end of that block.
  std::vector<double> firings;
  int rearmSeconds = 30;
};

/// Two minutes, each sample limited to the sensor's range.
std::vector<double> Drive(const Ride& ride) {
  std::vector<double> fired;
  double time = 0;
  AccelerationTrigger trigger({0.5, 300, ride.rearmSeconds}, [&](const auto&) { fired.push_back(time); });
  while (time < 120) {
    Accel::AccDataPak block;
    for (std::size_t i = 0; i < block.g.size(); i += 3, time += 0.01) {
      Vector g = ride.base(time);
      for (const auto& [from, to, height] : ride.pulses) g[2] += time >= from && time < to ? height : 0.0;
      for (std::size_t axis = 0; axis < 3; ++axis) block.g[i + axis] = static_cast<float>(std::clamp(g[axis], -4., 4.));
    }
    trigger.Feed(block, 0.01);
  }
  return fired;
}

TEST(AccelerationTriggerTest, FiresAtHitsAndHardBrakingOnly) {
  const auto level = [](double) { return Vector{-1, 0, 0}; };
  const auto askew = [](double) { return Vector{0.6, -0.48, 0.64}; };
  const auto slope = [](double t) { return Vector{-std::cos(t / 120), 0, std::sin(t / 120)}; };
  const auto rough = [](double t) { return Vector{1.2 * std::sin(50 * t) - 1, 0.3 * std::sin(31 * t), 0}; };
  const auto turned = [](double t) { return t < 20 ? Vector{-1, 0, 0} : Vector{0, -1, 0}; };
  const auto blind = [](double t) { return Vector{t < 20 || t > 25 ? -1.0 : 0.0, 0, 0}; };
  const Ride rides[] = {
      {"mounted askew", askew, {}, {}},
      {"on a slope", slope, {}, {}},
      {"on a rough road", rough, {}, {}},
      {"a bump", level, {{20, 20.29, 3}}, {}},
      {"a hit", level, {{20, 20.31, 3}}, {20.3}},
      {"hard braking", askew, {{20, 21.5, -0.85}}, {20.3}},
      {"beyond the sensor's range", level, {{20, 21, 9}}, {20.3}},
      {"braking, then off again", level, {{20, 28, -0.4}, {28, 34, 0.3}}, {}},
      {"re-armed in between", level, {{20, 22, 1}, {45, 46, 1}, {52, 53, 1}}, {20.3, 52.3}},
      {"re-armed in the middle", level, {{20, 22, 1}, {49, 51, 1}}, {20.3, 50.3}},
      {"not fallen since", level, {{20, 28, 1}}, {20.3}, 3},
      {"hung up anew", turned, {{60, 62, -0.8}}, {20.3, 60.3}},
      {"a sensor that shows nothing", blind, {}, {}},
  };
  for (const Ride& ride : rides) {
    SCOPED_TRACE(ride.name);
    const auto fired = Drive(ride);
    ASSERT_EQ(fired.size(), ride.firings.size());
    for (std::size_t i = 0; i < fired.size(); ++i) EXPECT_NEAR(fired[i], ride.firings[i] + 0.05, 0.06);
  }
}

// Catches a crash that is suppressed because it stopped the car, or because a tunnel took the fix.
TEST(LowSpeedGuardTest, GoesByTheHighestSpeedOfTheLastTenSeconds) {
  struct Case {
    const char* name;
    /// One fix a second, the last one just now; negative: not valid.
    std::vector<double> knots;
    bool isAllowed;
  };
  const Case cases[] = {{"no fix", {}, true},
                        {"no valid fix", {-1, -1}, true},
                        {"parked", {0, 0.5, 0}, false},
                        {"driving", {20, 30}, true},
                        {"stopped by a crash", {0, 30, 10, 0, 0}, true},
                        {"stopped long ago", {30, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, false},
                        {"parked, then a garage", {0, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1}, true}};
  for (const Case& c : cases) {
    LowSpeedGuard guard(3.0);
    LowSpeedGuard::Milliseconds now(0);
    for (const double knots : c.knots) {
      Gps::GpsData fix{};
      fix.isValidPackage = knots >= 0 ? 1 : 0;
      fix.speed = std::abs(knots) * (knots >= 0 ? 1 : 99);
      guard.Feed(fix, now += std::chrono::seconds(1));
    }
    EXPECT_EQ(guard.IsAllowed(now), c.isAllowed) << c.name;
  }
}

// Catches a trigger that ordinary driving sets off, or that is lost when the acquisition is stopped and started.
TEST(TriggerWatchTest, FiresAtTheSimulatedCarsHardBrakingAndNotBefore) {
  gst_init(nullptr, nullptr);
  auto& clock = Kbase::Util::IClock::Steady();
  const auto departure = clock.Now();
  const auto elapsed = [&] { return std::chrono::duration<double>(clock.Now() - departure).count(); };
  const Simulator::SimulatedCar car;
  Pipeline::PipelineConfig config;
  config.camera0Enabled = config.camera1Enabled = config.audioEnabled = false;
  config.gps.path = car.GetGpsPath();
  Pipeline::PipelineManager manager(config);
  const auto getRing = [&](PipelineType type) { return manager.ShareElement(type); };
  Health health(getRing);
  std::vector<std::pair<std::string, double>> fired;
  TriggerWatch watch({{}, 3.0}, getRing, [&](const std::string& why) {
    fired.emplace_back(why, elapsed());
    EXPECT_EQ(health.Read().size(), 3U) << "receiver, accelerometer, metrics";
  });
  ASSERT_TRUE(watch.Start());
  manager.Start();
  for (int second = 0; elapsed() < 24; ++second, clock.Sleep(std::chrono::seconds(1))) {
    health.Sample();
    if (second != 5) continue;
    manager.Stop();
    manager.Init();
    manager.Start();
  }
  watch.Stop();
  ASSERT_EQ(fired.size(), 1U);
  EXPECT_EQ(fired[0].first.find("acceleration of 0."), 0U) << fired[0].first;
  EXPECT_GE(fired[0].second, 18.5);
  EXPECT_LE(fired[0].second, 24.0);
  for (const auto& source : health.Read()) {
    SCOPED_TRACE(GetSourceName(source.type));
    EXPECT_EQ(source.state, SourceState::Running);
    EXPECT_EQ(source.restarts, 1U);
    EXPECT_NEAR(source.rate, source.configuredRate, source.configuredRate * 0.4);
    EXPECT_LE(static_cast<double>(source.missed), 0.3 * static_cast<double>(source.entries));
  }
}

}  // namespace
}  // namespace Tavi::Recorder::Triggers
