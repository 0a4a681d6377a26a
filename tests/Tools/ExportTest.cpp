// What tavi-export writes, and how the program answers mistakes and damage.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "EventStore/Chain.h"
#include "Support/Fixtures.h"
#include "Tools/Export/Formats.h"

namespace {

using namespace Tavi::EventTools;
using Tavi::Testing::ReadFile;
using testing::HasSubstr;

/// Three fixes with a gap behind the first two, two samples between them.
EventData MakeEvent() {
  EventData data;
  data.description.id = "9f3ca1b2";
  data.description.label = "A & B <\x01>";
  data.description.timeMs = 1'795'268'405'123;
  data.description.position = {{48.1, -11.5, 20.0, "2026-11-21T13:40:05Z"}};
  data.gps.records = {{-1.0, true, 1'795'268'404'000, 48.1178767, -11.5167, 24.36, 12.5},
                      {0.0, true, 1'795'268'405'000, 48.118, -11.5167, 28.83, 12.5, true, 0.9, 8, 545.4},
                      {1.0, false, 0, 0.0, 0.0, 0.0, 0.0},
                      {2.0, true, 1'795'268'407'000, -48.1182, 180.0, 0.0, 0.0}};
  data.acc.records = {{0.5, {0.0, -0.84375, 0.03125}}};
  data.other.records = {{0.25, 16, std::nullopt}};
  return data;
}

TEST(ExportTest, GpxIsBrokenAtGapsAndEscapesTheLabel) {
  EXPECT_EQ(FormatGpx(MakeEvent()),
            R"(<?xml version="1.0" encoding="UTF-8"?>
<gpx version="1.1" creator="tavi-export" xmlns="http://www.topografix.com/GPX/1/1" xmlns:tavi="urn:tavi:event">
  <metadata><name>A &amp; B &lt; &gt;</name><time>2026-11-21T13:40:05.123Z</time></metadata>
  <wpt lat="48.1000000" lon="-11.5000000"><time>2026-11-21T13:40:05.123Z</time><name>Event 9f3ca1b2</name><cmt>time by the system</cmt></wpt>
  <trk><name>A &amp; B &lt; &gt;</name>
    <trkseg>
      <trkpt lat="48.1178767" lon="-11.5167000"><time>2026-11-21T13:40:04.000Z</time><extensions><tavi:speedKnots>24.36</tavi:speedKnots></extensions></trkpt>
      <trkpt lat="48.1180000" lon="-11.5167000"><ele>545.4</ele><time>2026-11-21T13:40:05.000Z</time><fix>dgps</fix><sat>8</sat><hdop>0.9</hdop><extensions><tavi:speedKnots>28.83</tavi:speedKnots></extensions></trkpt>
    </trkseg>
    <trkseg>
      <trkpt lat="-48.1182000" lon="-180.0000000"><time>2026-11-21T13:40:07.000Z</time><extensions><tavi:speedKnots>0.00</tavi:speedKnots></extensions></trkpt>
    </trkseg>
  </trk>
</gpx>
)");
}

using ExportFileTest = Tavi::Testing::TempDirTest;

// What only those programs refuse that go by the schema.
TEST_F(ExportFileTest, GpxIsValidByItsSchema) {
  if (!std::filesystem::exists(GPX_SCHEMA)) GTEST_SKIP() << "scripts/setup.sh could not get " GPX_SCHEMA;
  EventData nothing = MakeEvent();
  nothing.description.position.reset();
  nothing.gps.records.clear();
  for (const auto& [gpx, status] : {std::pair(FormatGpx(MakeEvent()), 0), {FormatGpx(nothing), 0}, {"<gpx/>", 3}}) {
    std::ofstream(m_dir + "event.gpx") << gpx;
    const std::string line = "xmllint --noout --schema " GPX_SCHEMA " " + m_dir + "event.gpx >/dev/null 2>&1";
    EXPECT_EQ(WEXITSTATUS(std::system(line.c_str())), status) << gpx;
  }
}

// The label is of a kind that makes two cells, or two rows, of one.
TEST(ExportTest, CsvMergesTheStreamsByTimeAndNamesTheEventInEachRow) {
  EventData data = MakeEvent();
  data.description.label = "A, \"B\"";
  data.laterLabel = "C, D";
  std::string csv = FormatCsv(data);
  const std::string event = ",9f3ca1b2,\"A, \"\"B\"\"\",\"C, D\"\n";
  EXPECT_THAT(csv, HasSubstr(",48.1178767,-11.5167000,24.36,12.5,,,,,,,," + event))
      << "nothing is known of its quality";
  for (std::size_t at; (at = csv.find(event)) != std::string::npos;) csv.replace(at, event.size(), "\n");
  EXPECT_THAT(csv, testing::StartsWith("stream,time_from_event_s,time_utc,latitude_deg,longitude_deg,speed_knots,"));
  EXPECT_THAT(
      csv, testing::EndsWith("\nGps,0.000,2026-11-21T13:40:05.000Z,48.1180000,-11.5167000,28.83,12.5,,,,,,545.4,0.9,8\n"
                             "Other,0.250,2026-11-21T13:40:05.373Z,,,,,,,,16,,,,\n"
                             "Acc,0.500,2026-11-21T13:40:05.623Z,,,,,0.00000,-0.84375,0.03125,,,,,\n"
                             "Gps,1.000,2026-11-21T13:40:06.123Z,,,,,,,,,,,,\n"
                             "Gps,2.000,2026-11-21T13:40:07.000Z,-48.1182000,180.0000000,0.00,0.0,,,,,,,,\n"));
}

TEST(ExportTest, GeoJsonHasLongitudeFirstAndNoLineOfOnePoint) {
  const auto features = nlohmann::json::parse(FormatGeoJson(MakeEvent()))["features"];
  ASSERT_EQ(features.size(), 5U);
  EXPECT_EQ(features[0]["geometry"]["type"], "MultiLineString");
  EXPECT_EQ(features[0]["geometry"]["coordinates"].dump(), "[[[-11.5167,48.1178767],[-11.5167,48.118]]]");
  EXPECT_EQ(features[1]["properties"]["time"], "2026-11-21T13:40:04.000Z");
  EXPECT_EQ(features[2]["properties"]["hdop"], 0.9);
  EXPECT_FALSE(features[1]["properties"].contains("altitudeMetres")) << "0 would be a height";
  for (const int i : {0, 4}) EXPECT_EQ(features[i]["properties"]["label"], MakeEvent().description.label);
  EXPECT_EQ(features[4]["properties"]["labelWrittenLater"], "") << "nobody wrote any";
}

// Names of cameras that break the formats, or are of the other camera.
TEST(ExportTest, CamerasHaveTheNamesThatPeopleGaveThem) {
  EventData data = MakeEvent();
  data.description.cameraNames = {"rear <1>", ""};
  EXPECT_THAT(FormatGpx(data), HasSubstr("<desc>Cameras: rear &lt;1&gt;, camera1</desc>"));
  const auto properties = nlohmann::json::parse(FormatGeoJson(data))["features"][4]["properties"];
  EXPECT_EQ(properties["cameras"].dump(), R"(["rear <1>","camera1"])");
}

// Catches subtitles that run with the other camera's clip: settings and files number the cameras the other way round.
TEST(ExportTest, SubtitlesAreOfTheSettingsCamera) {
  EventData data = MakeEvent();
  data.description.cameraNames = {"front", ""};
  data.description.streams.resize(2);
  data.description.streams[0].type = "VideoCamera1";
  data.description.streams[0].fromSeconds = -1.25;
  data.description.streams[1].type = "VideoCamera0";
  data.description.streams[1].fromSeconds = -0.5;
  EXPECT_THAT(FormatClipSubtitles(data, 0, SubtitleForm::WebVtt),
              testing::StartsWith("WEBVTT front\n\n00:00:00.250 --> "));
  EXPECT_THAT(FormatClipSubtitles(data, -1, SubtitleForm::WebVtt), testing::StartsWith("WEBVTT front\n"));
  EXPECT_THAT(FormatClipSubtitles(data, 1, SubtitleForm::WebVtt), testing::StartsWith("WEBVTT camera1\n"));
  data.description.streams.erase(data.description.streams.begin());
  EXPECT_THAT(FormatClipSubtitles(data, -1, SubtitleForm::Srt),
              testing::StartsWith("1\n00:00:00,000 --> 00:00:00,500"));
}

// Catches cues before the clip, and the two forms' marks mixed up.
TEST(ExportTest, SubtitlesBeginWithTheClip) {
  const std::string vtt = FormatSubtitles(MakeEvent(), 0.25, SubtitleForm::WebVtt);
  EXPECT_THAT(vtt, testing::StartsWith("WEBVTT\n\n00:00:00.000 --> 00:00:00.750\n53.4 km/h   13:40:05 UTC\n"
                                       "48.118000° N, 11.516700° W\n\n"
                                       "00:00:00.750 --> 00:00:01.750\nno position   13:40:06 UTC\n\n"));
  const std::string srt = FormatSubtitles(MakeEvent(), -0.5, SubtitleForm::Srt);
  EXPECT_THAT(srt, testing::StartsWith("1\n00:00:00,000 --> 00:00:00,500\n45.1 km/h"));
}

class ExportProgramTest : public Tavi::Testing::TempDirTest {
 protected:
  /// Exit status of the program; what it says goes to the files out and err.
  int Run(const std::string& arguments) const {
    const std::string command = EXPORT_PROGRAM " " + arguments + " >" + m_dir + "out 2>" + m_dir + "err";
    const int status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  void WriteEvent(const std::string& metrics) const {
    EventData data = MakeEvent();
    data.description.streams = {{"Other", 2, 1.0, -1.0, 0.0, std::nullopt, std::nullopt}};
    data.description.files = {{"Other", "other_1.dat", metrics.size(), Tavi::EventStore::HashText(metrics)}};
    std::filesystem::create_directories(m_dir + "event");
    std::ofstream(m_dir + "event/event.json") << Tavi::EventStore::FormatEvent(data.description);
    std::ofstream(m_dir + "event/other_1.dat") << metrics;
    if (!std::filesystem::exists(m_dir + "link"))
      std::filesystem::create_hard_link(m_dir + "event/other_1.dat", m_dir + "link");
  }
};

TEST_F(ExportProgramTest, AMistakeIsOneLineAndTwoDamageIsOneLineAndOne) {
  const std::string whole = R"([{"cpu_usage":16,"temperature":40}])";
  const struct {
    std::string metrics, arguments;
    int status;
    std::string line;
  } cases[] = {
      {whole, m_dir + "event --csv", 0, ""},
      {whole, m_dir + "event --csv --output " + m_dir + "a.csv", 0, ""},
      {whole, m_dir + "event --csv --output " + m_dir + "event/a.csv", 2,
       "event/a.csv\" belongs to the event; give a file"},
      {whole, m_dir + "event --csv --output " + m_dir + "link", 2, "link\" belongs to the event"},
      {whole, m_dir + "event", 2, "tavi-export: give one of --gpx, --csv, --geojson, --mcap and --subtitles"},
      {whole, m_dir + "event --csv --gpx", 2, "give one of"},
      {whole, m_dir + "event --csv --camera 1", 2, "--camera: it goes with --subtitles only"},
      {whole, m_dir + "event --kml", 2, "--kml"},
      {whole, m_dir + "none --csv", 2, "none\" is no directory"},
      {whole, m_dir + "event --csv --output " + m_dir + "none/a.csv", 2,
       "none/a.csv\" cannot be written: No such file"},
      {whole, m_dir + "event --csv --output /dev/full", 1, "/dev/full: No space left on device"},
      {whole.substr(0, 34), m_dir + "event --csv", 1, "the event is damaged, what is whole was written: " + m_dir},
  };
  for (const auto& [metrics, arguments, status, line] : cases) {
    WriteEvent(metrics);
    EXPECT_EQ(Run(arguments), status) << arguments;
    const std::string said = ReadFile(m_dir + "err");
    EXPECT_THAT(said, HasSubstr(line)) << arguments;
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), line.empty() ? 0 : 1) << said;
  }
  EXPECT_THAT(ReadFile(m_dir + "out"),
              HasSubstr("\nOther,-1.000,2026-11-21T13:40:04.123Z,,,,,,,,16,40,,,,9f3ca1b2,A & B <\x01>,\n"));
  EXPECT_EQ(ReadFile(m_dir + "a.csv"), ReadFile(m_dir + "out"));
  std::filesystem::remove(m_dir + "event/event.json");
  EXPECT_EQ(Run(m_dir + "event --csv"), 1);
}

}  // namespace
