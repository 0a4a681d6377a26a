// The description of an event: all of it comes back, and anything else is refused with one sentence.
#include <sys/stat.h>

#include <cmath>

#include "EventStore/StoreFixture.h"

namespace Tavi::EventStore {
namespace {

class DescriptionTest : public StoreTest {
 protected:
  static EventDescription MakeFull() {
    EventDescription event = MakeEvent("9f3ca1b2");
    event.software = "tavi-recorder 0.1.0";
    event.timeSource = ReceiverSource;
    event.accScaleG = 8;
    event.cameraNames = {"rear", ""};
    event.systemAheadSeconds = -1795268405.25;
    event.label = "hard \"stop\"\n\xC3\xA4";
    event.manager = "second";
    event.queuedSeconds = 0.1;
    event.interrupted = event.withPreview = true;
    event.maxSpeedKnots = 33.05;
    event.position = Position{-48.1, 11.5, 20.0, "2026-11-21T13:40:05Z"};
    event.streams = {{"Gps", 29, 1.0, -15.4, 14.6, -1, std::nullopt}};
    event.files = {{"Gps", "gps_1.dat", 1ULL << 40, std::string(64, 'a')}};
    return event;
  }
  std::optional<EventDescription> Read(const std::string& text) {
    std::ofstream(m_dir + "event.json") << text;
    return ReadEvent(m_dir.substr(0, m_dir.size() - 1), m_problem);
  }
};

// A member that is written under one name and read under another, lost digits, NaN as broken text, local time.
TEST_F(DescriptionTest, WhatIsWrittenIsRead) {
  const std::string text = FormatEvent(MakeFull());
  const auto read = Read(text);
  ASSERT_TRUE(read) << m_problem;
  EXPECT_EQ(FormatEvent(*read), text);
  EXPECT_EQ(read->timeMs, 1'795'268'405'123);
  EXPECT_EQ(GetSystemTimeMs(*read), -127) << "a quarter second before it was 1970";
  EXPECT_EQ(read->streams[0].firstTimestampNs, -1);
  EXPECT_EQ(read->files[0].bytes, 1ULL << 40);
  for (const char* line : {R"("time": "2026-11-21T13:40:05.123Z")", R"("maxG": null)", R"("lastTimestampNs": null)",
                           R"("VideoCamera1": "rear")", R"("VideoCamera0": null)"}) {
    EXPECT_NE(text.find(line), std::string::npos) << line;
  }
  std::string older = text;
  for (const char* key : {"timeSource", "systemAheadSeconds", "accScaleG", "cameraNames"})
    older.replace(older.find(key), 1, "_");
  const auto olderRead = Read(older);
  EXPECT_TRUE(olderRead && olderRead->timeSource == SystemSource && olderRead->accScaleG == 4) << m_problem;
  EventDescription odd = MakeFull();
  odd.maxG = odd.queuedSeconds = std::nan("");
  odd.label = "\xFF";
  odd.position.reset();
  const auto oddRead = Read(FormatEvent(odd));
  ASSERT_TRUE(oddRead) << m_problem;
  EXPECT_FALSE(oddRead->maxG || oddRead->position);
}

// A damaged or forged description that is believed: a name that leads elsewhere, a wrapped number, a default.
TEST_F(DescriptionTest, AnythingElseIsRefusedWithItsPlace) {
  struct Damage {
    const char* from;
    const char* to;
    const char* place;
  };
  const Damage damages[] = {
      {R"("schema": 1)", R"("schema": 2)", "\"schema\""},
      {R"("schema": 1,)", "", "\"schema\" is missing"},
      {R"("9f3ca1b2")", R"("../../b2")", "\"id\""},
      {"2026-11-21T13:40:05.123Z", "2026-02-30T13:40:05.123Z", "\"time\""},
      {"05.123Z", "05.123Z ", "\"time\""},
      {R"("startSeconds": -15)", R"("startSeconds": 4294967281)", "\"request.startSeconds\""},
      {R"("durationSeconds": 30)", R"("durationSeconds": "30")", "\"request.durationSeconds\""},
      {"-48.1", "null", "\"position.latitude\""},
      {R"("queuedSeconds": 0.1)", R"("queuedSeconds": 1e999)", "no JSON"},
      {R"("entries": 29)", R"("entries": -29)", "\"streams[0].entries\""},
      {R"("firstTimestampNs": -1)", R"("firstTimestampNs": 18446744073709551615)", "\"streams[0].firstTimestampNs\""},
      {"gps_1.dat", "../x", "\"files[0].name\""},
      {"gps_1.dat", "/etc/passwd", "\"files[0].name\""},
      {"gps_1.dat", "..", "\"files[0].name\""},
      {"gps_1.dat", "a\\u0000b", "\"files[0].name\""},
      {"gps_1.dat", "event.json", "\"files[0].name\""},
      {"gps_1.dat", "", "\"files[0].name\""},
      {"1099511627776", "1.5", "\"files[0].bytes\""},
      {"aaaa\"", "aaa\"", "\"files[0].sha256\""},
      {R"("accScaleG": 8)", R"("accScaleG": 0)", "\"accScaleG\""},
      {"gps_1.dat", "index.html", "\"files[0].name\""},
      {R"("VideoCamera1": "rear")", R"("VideoCamera1": 1)", "\"cameraNames.VideoCamera1\""},
      {"}\n", "", "no JSON"},
  };
  for (const Damage& damage : damages) {
    std::string text = FormatEvent(MakeFull());
    text.replace(text.rfind(damage.from), std::string(damage.from).size(), damage.to);
    EXPECT_FALSE(Read(text)) << damage.to;
    EXPECT_EQ(m_problem.find(m_dir + "event.json "), 0U) << m_problem;
    EXPECT_NE(m_problem.find(damage.place), std::string::npos) << damage.to << ": " << m_problem;
  }
  for (const std::string& text : {std::string(), std::string("[]"), std::string("null"), std::string(100'000, '['),
                                  std::string(1'048'577, ' '), R"({"schema":1,"files":[1]})" + std::string(9, '\0')}) {
    EXPECT_FALSE(Read(text)) << text.substr(0, 30);
  }
  EXPECT_FALSE(ReadEvent(m_dir + "none", m_problem));
  std::filesystem::remove(m_dir + "event.json");
  std::filesystem::create_symlink("/etc/passwd", m_dir + "event.json");
  EXPECT_FALSE(ReadEvent(m_dir, m_problem));
  std::filesystem::remove(m_dir + "event.json");
  ASSERT_EQ(mkfifo((m_dir + "event.json").c_str(), 0600), 0);
  EXPECT_FALSE(ReadEvent(m_dir, m_problem)) << "and does not wait for a writer";
}

}  // namespace
}  // namespace Tavi::EventStore
