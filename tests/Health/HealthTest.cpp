// The sources' health, sample by sample, and its reports.
#include "Recorder/Health/Health.h"

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include "Kdevice/I2C/I2c.h"
#include "Recorder/Health/HealthReport.h"
#include "Support/Media.h"
#include "Tavi/Accel/AccPipelineElement.h"

namespace Tavi::Recorder {
namespace {

using Pipeline::PipelineType;
using std::chrono::milliseconds;
using Testing::TestEntry;
using Testing::TestRing;

class ManualClock final : public Kbase::Util::IClock {
 public:
  Milliseconds Now() override { return m_now; }
  void Sleep(Milliseconds duration) override { m_now += duration; }

 private:
  Milliseconds m_now{1'000'000};
};

class HealthTest : public Testing::MediaTest {
 protected:
  void Connect(PipelineType type, float fps) { m_rings[type] = std::make_shared<TestRing>(64, fps); }
  void Deliver(PipelineType type, int count) {
    for (int i = 0; i < count; ++i) {
      m_rings[type]->AddNext(std::make_shared<TestEntry>(m_rings[type]->GetCurrentFrameId() + 1));
    }
  }
  void SampleAfter(milliseconds time) {
    m_clock.Sleep(time);
    m_health.Sample();
  }
  SourceHealth Only() const { return m_health.Read().at(0); }

  ManualClock m_clock;
  Health::Ring m_acc;
  std::map<PipelineType, std::shared_ptr<TestRing>> m_rings;
  Health m_health{[this](PipelineType type) { return m_rings[type]; }, m_clock};
};

// Catches counts that a restart sets back or counts twice, and a rate that goes on after its source.
TEST_F(HealthTest, CountsGoOnOverRestartsAndTheRateFollows) {
  Connect(PipelineType::Acc, 10);
  m_health.Sample();
  EXPECT_EQ(Only().state, SourceState::Starting);
  for (int second = 0; second < 6; ++second, SampleAfter(milliseconds(1000))) Deliver(PipelineType::Acc, 9);
  EXPECT_EQ(Only().entries, 54U);
  EXPECT_NEAR(Only().rate, 9, 0.1);
  m_rings[PipelineType::Acc].reset();
  SampleAfter(milliseconds(60'000));
  EXPECT_EQ(Only().state, SourceState::Stopped);
  EXPECT_EQ(Only().newestAge, std::nullopt);
  Connect(PipelineType::Acc, 10);
  for (const int count : {3, 10}) {
    Deliver(PipelineType::Acc, count);
    SampleAfter(milliseconds(1000));
  }
  m_rings[PipelineType::Acc]->AddNext(std::make_shared<TestEntry>(0));
  SampleAfter(milliseconds(1000));
  EXPECT_EQ(Only().entries, 54U + 3 + 10 + 1);
  EXPECT_EQ(Only().restarts, 2U);
  EXPECT_EQ(Only().missed, 4U) << "one between each two samples but the last, none while stopped";
  for (int second = 0; second < 5; ++second) SampleAfter(milliseconds(1000));
  EXPECT_EQ(Only().rate, 0.0);
  EXPECT_EQ(GetLog().find("is back"), std::string::npos);
}

// Catches alarms at every short pause, repeated ones, and a length that goes by the samples.
TEST_F(HealthTest, SilenceIsToldOnceAndItsEndToo) {
  Connect(PipelineType::Camera0, 30);
  Connect(PipelineType::Gps, 1);
  SampleAfter(milliseconds(10'000));
  EXPECT_EQ(GetLog(), "") << "has not delivered yet";
  Deliver(PipelineType::Camera0, 1);
  Deliver(PipelineType::Gps, 1);
  m_health.Sample();
  SampleAfter(milliseconds(500));
  EXPECT_EQ(GetLog(), "") << "more than five periods, but no more than half a second";
  for (int i = 0; i < 4; ++i) SampleAfter(milliseconds(1000));
  EXPECT_EQ(CountLogged("camera1 has been silent for 1500 ms"), 1) << "as all lines name the settings' camera0";
  EXPECT_EQ(CountLogged("[WARNING]"), 1) << "five seconds are the receiver's limit";
  SampleAfter(milliseconds(1000));
  EXPECT_EQ(CountLogged("gps has been silent for 5500 ms"), 1);
  EXPECT_EQ(ToJson(m_health.Read())["gps"]["state"], "silent");
  Deliver(PipelineType::Camera0, 31);
  SampleAfter(milliseconds(1000));
  EXPECT_EQ(CountLogged("camera1 is back after 5500 ms of silence"), 1);
  EXPECT_EQ(CountLogged("silent"), 2);
}

// Catches lost frames that consecutive ids hide, and a sensor's late block taken for a lost one.
TEST_F(HealthTest, MissedIsWhatTimeStampsLackAndWhatNeverCame) {
  Connect(PipelineType::Camera1, 10);
  Connect(PipelineType::Acc, 10);
  for (int i = 0; i < 70; ++i) {
    AddMedia(*m_rings[PipelineType::Camera1], static_cast<GstClockTime>(i < 25 ? i : i + 4) * 100 * GST_MSECOND);
    // The blocks of the third second come half a second late, those of the fifth not at all.
    if (i / 10 != 4 && (i < 25 || i >= 30)) Deliver(PipelineType::Acc, i == 30 ? 6 : 1);
    m_clock.Sleep(milliseconds(100));
    if (i % 10 == 9) m_health.Sample();
  }
  EXPECT_EQ(m_health.Read().at(0).missed, 4U);
  EXPECT_EQ(m_health.Read().at(1).missed, 10U);
}

// Catches a bus that fails for weeks and nobody sees it, and counts that a restart sets back.
TEST_F(HealthTest, BusErrorsAndOverflowsAreTheProcesss) {
  Accel::AccConfig config;
  const auto sampleAnew = [&, health = std::make_unique<Health>(
                                  [this](PipelineType type) { return type == PipelineType::Acc ? m_acc : nullptr; },
                                  m_clock)](std::uint64_t least) {
    const auto acc = std::make_shared<Accel::AccPipelineElement>(config, 10);
    m_acc = acc;
    acc->Start();  // there is no such bus here
    EXPECT_TRUE(Testing::WaitUntil([&] { return acc->GetBusErrorCount() > 0; }));
    acc->Stop();
    health->Sample();
    const auto json = ToJson(health->Read())["acc"];
    EXPECT_GE(json["busErrors"].get<std::uint64_t>(), least);
    EXPECT_EQ(json["overflows"], 0);
    EXPECT_NE(ToPrometheus(health->Read()).find("tavi_source_bus_errors_total{source=\"acc\"} "), std::string::npos);
  };
  sampleAnew(1);
  sampleAnew(2);
  Connect(PipelineType::Gps, 1);
  m_health.Sample();
  EXPECT_FALSE(ToJson(m_health.Read())["gps"].contains("busErrors"));
}

// Catches a text that a scraper refuses: metrics torn apart, unescaped labels, an age that is none.
TEST(PrometheusTest, TextIsWholeAndEscaped) {
  std::vector<SourceHealth> sources(2);
  sources[0].newestAge = milliseconds(12);
  sources[0].entries = 123'456'789;
  sources[1].type = PipelineType::Gps;
  EXPECT_NE(ToPrometheus(sources).find("# TYPE tavi_source_entries_total counter\n"
                                       "tavi_source_entries_total{source=\"camera0\"} 123456789\n"
                                       "tavi_source_entries_total{source=\"gps\"} 0\n"
                                       "# HELP tavi_source_rate_hertz "),
            std::string::npos);
  auto named = sources;
  named[0].name = "front \"<\"";
  EXPECT_NE(ToPrometheus(named).find(R"(_total{source="camera0",name="front \"<\""} 123456789)"), std::string::npos);
  EXPECT_NE(ToPrometheus(sources).find("_age_seconds{source=\"camera0\"} 0.012\n# HELP"), std::string::npos);
  PrometheusText text;
  text.Describe("a", PrometheusText::Type::Gauge, "x \"y\"\n\\");
  text.Add(std::numeric_limits<double>::infinity(), {{"p", "\"q\"\n"}, {"r", "\\"}});
  text.Add(0.5);
  EXPECT_EQ(text.GetText(), "# HELP a x \"y\"\\n\\\\\n# TYPE a gauge\na{p=\"\\\"q\\\"\\n\",r=\"\\\\\"} +Inf\na 0.5\n");
}

}  // namespace
}  // namespace Tavi::Recorder
