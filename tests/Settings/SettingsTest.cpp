// The settings' file: every mistake is one line with its place, and what is written is read back.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cmath>
#include <fstream>
#include <functional>
#include <tuple>

#include "Recorder/Settings/Settings.h"
#include "Support/Fixtures.h"

namespace {

using namespace Tavi::Recorder;
using testing::HasSubstr;

class SettingsTest : public Tavi::Testing::TempDirTest {
 protected:
  /// The problem without the file's name; "fine" when there is none.
  std::string Load(const std::string& text) {
    std::ofstream(m_dir + "a.json") << text;
    return LoadFile(m_dir + "a.json");
  }
  std::string LoadFile(const std::string& path) {
    std::string problem = "left over";
    if (LoadSettings(path, m_settings, problem)) return problem.empty() ? "fine" : problem;
    EXPECT_EQ(problem.substr(0, path.size() + 1), path + ":");
    EXPECT_EQ(problem.find('\n'), std::string::npos) << problem;
    return problem.substr(path.size() + 1);
  }
  Settings m_settings;
};

TEST_F(SettingsTest, AMistakeIsOneLineWithItsPlaceAndWhatWouldBeRight) {
  m_settings.events.queueLength = 77;
  const struct {
    std::string text;
    std::string expected;
  } cases[] = {
      {"{\"pipeline\": {\n\"camera0\": {\n\"fps\": 0\n}}}",
       "3: field pipeline.camera0.fps: 0 is out of range, 1 to 60 is right"},
      {"{\"pipeline\":{\"camera1\":{\"encoder\":\"x265\"}}}",
       "1: field pipeline.camera1.encoder: \"x265\" is not possible, one of auto, v4l2, vaapi, x264, openh264 is "
       "right"},
      {"{\"pipeline\":{\"camera1\":{\"width\":\n\n-2}}}",
       "3: field pipeline.camera1.width: -2 is out of range, an even number from 16 to 1920 is right"},
      {"{\"pipeline\":{\"camera1\":{\n\"height\":721}}}",
       "2: field pipeline.camera1.height: 721 is odd, an even number from 16 to 1088 is right"},
      {"{\"pipeline\":{\"camera0\":{\"cameraType\":1}}}",
       "1: field pipeline.camera0.cameraType: 1 is out of range, only 0 is right"},
      {R"({"pipeline": {"acc": {"rate": 100}}})", "1: field pipeline.acc.rate: 100 is out of range, only 10 is right"},
      {R"({"pipeline": {"other": {"rate": 10}}})", "1: field pipeline.other.rate: 10 is out of range, only 1 is right"},
      {"{\"pipeline\":{\"gps\":{\"baud\":9601}}}",
       "1: field pipeline.gps.baud: 9601 is not possible, one of 4800, 9600, 19200, 38400, 57600, 115200, 230400, "
       "460800, 921600 is right"},
      {"{\n\"events\":{\"startSeconds\":1.5}}",
       "2: field events.startSeconds: 1.5 is no whole number, -31 to 0 is right"},
      {"{\"storage\":{\"maxEvents\":18446744073709551617}}",
       "1: field storage.maxEvents: 1.8446744073709552e+19 is out of range, 0 to 1000000 is right"},
      {"{\"events\":{\"withPreview\":1}}",
       "1: field events.withPreview: 1 is of the wrong type, true or false is right"},
      {"{\"events\":{\"queueLength\":\"4\\n\"}}",
       "1: field events.queueLength: \"4\\n\" is of the wrong type, 1 to 1000 is right"},
      {"{\"events\":{\"queueLength\":null}}",
       "1: field events.queueLength: null is of the wrong type, 1 to 1000 is right"},
      {"{\"simulate\":{\"a\":1}}", "1: field simulate: an object is of the wrong type, true or false is right"},
      {"{\"simulate\":\n[true]}", "2: field simulate: an array is of the wrong type, true or false is right"},
      {"{\"events\":\n5\n}", "2: field events: 5 is of the wrong type, an object is right"},
      {"\n[]", "2: an array is of the wrong type, an object with settings is right"},
      {"{\"storage\":{\"workDir\":\"\"}}",
       "1: field storage.workDir: \"\" is empty, a text of 1 to 4095 bytes is right"},
      {"{\"logFile\":\"/tmp/a\\u0000b\"}",
       "1: field logFile: \"/tmp/a\\u0000b\" is no printable text, a text of 0 to 4095 bytes is right"},
      {"{\"control\":{\"socket\":\"" + std::string(108, 's') + "\"}}",
       "1: field control.socket: \"" + std::string(79, 's') + "... is too long, a text of 1 to 107 bytes is right"},
      {"{\"pipeline\":{\"camera0\":{\n\"FPS \":1}}}",
       "2: field pipeline.camera0.\"FPS \": unknown, the nearest name is fps"},
      {"{\"events\":{},\"fps\":5}",
       "1: field fps: unknown here, there is pipeline.camera0.fps; known here are pipeline, events, storage, triggers, "
       "control, uploadStatusFile, simulate, temperatureZone, logFile, logFileMaxBytes, logFileCount"},
      {"{\"simulate\":true,\"a\\nb\":5}",
       "1: field \"a\\nb\": unknown, known here are pipeline, events, storage, triggers, control, "
       "uploadStatusFile, simulate, temperatureZone, logFile, logFileMaxBytes, logFileCount"},
      {"{\"events\":{},\n\"events.queueLength\":5}",
       "2: field \"events.queueLength\": unknown here, there is events.queueLength; known here are pipeline, events, "
       "storage, triggers, control, uploadStatusFile, simulate, temperatureZone, logFile, logFileMaxBytes, "
       "logFileCount"},
      {"{\"events\":{\"queueLength\":1,\n\"queueLength\":1}}",
       "2: field events.queueLength: it is there twice, once is right"},
      {"{\"events\":{},\"simulate\":true,\n\"events\":{}}", "2: field events: it is there twice, once is right"},
      {"", "1:1: syntax error while parsing value - unexpected end of input; expected '[', '{', or a literal"},
      {"{\n  \"simulate\" true}",
       "2:17: syntax error while parsing object separator - unexpected true literal; expected ':'"},
      {"{\"simulate\": true,\n}",
       "2:1: syntax error while parsing object key - unexpected '}'; expected string literal"},
      {"{\"simulate\": true\n", "2:1: syntax error while parsing object - unexpected end of input; expected '}'"},
      {"{} x", "1:4: syntax error while parsing value - invalid literal"},
      {"{\"logFile\": \"a\nb\"}",
       "1:15: syntax error while parsing value - invalid string: control character U+000A (LF) must be escaped to "
       "\\u000A or \\n"},
      {"{\"triggers\":{\"acceleration\":{\"thresholdG\":\n1e999}}}",
       "2: field triggers.acceleration.thresholdG: the number is out of range, 0.05 to 8 is right"},
      {"{\"pipeline\":{\"acc\":{\n\"axes\":\"x,x,z\"}}}",
       "2: field pipeline.acc.axes: \"x,x,z\" is not possible, x, y and z in some order, as x,y,z or -z,x,y is right"},
  };
  for (const auto& c : cases) EXPECT_EQ(Load(c.text), c.expected) << c.text;
  EXPECT_EQ(m_settings.events.queueLength, 77) << "a refused file changes nothing";
}

TEST_F(SettingsTest, WhatIsNoFileOfSettingsIsRefusedWithoutWaiting) {
  mkfifo((m_dir + "fifo").c_str(), 0600);
  EXPECT_EQ(LoadFile(m_dir + "none"), " it cannot be opened (No such file or directory)");
  EXPECT_EQ(LoadFile(m_dir), " it is a directory, a file is right");
  EXPECT_EQ(LoadFile(m_dir + "fifo"), " it is no regular file, one is right");
  EXPECT_EQ(Load("{}" + std::string(1 << 20, ' ')), " it is larger than 1 MiB, no settings are");
  EXPECT_EQ(Load("{}" + std::string((1 << 20) - 2, ' ')), "fine");
}

TEST_F(SettingsTest, WhatIsWrittenIsReadBackAndWhatIsMissingHasItsDefault) {
  Settings changed;
  changed.pipeline.camera0Enabled = false;
  changed.pipeline.camera1.device = "/dev/\"v\\\xC3\xA4";
  changed.pipeline.audio.frameRate = 41.67F;
  changed.pipeline.gps.path = "/tmp/log";
  changed.storage.maxBytes = std::uint64_t{1} << 50;
  changed.triggers.acceleration.thresholdG = 0.1 + 0.2;
  changed.simulate = true;
  const std::string text = FormatSettings(changed);
  ASSERT_EQ(Load(text), "fine");
  EXPECT_EQ(FormatSettings(m_settings), text);
  EXPECT_EQ(m_settings.storage.maxBytes, changed.storage.maxBytes);
  EXPECT_EQ(m_settings.pipeline.audio.frameRate, 41.67F);
  EXPECT_EQ(m_settings.triggers.acceleration.thresholdG, 0.1 + 0.2);

  ASSERT_EQ(Load("\xEF\xBB\xBF{\"storage\":{\"eventsDir\":\"/data\"},\"pipeline\":{\"camera0\":{\"fps\":2e1}}}"),
            "fine");
  EXPECT_EQ(m_settings.storage.eventsDir, "/data/") << "file names are appended to it";
  EXPECT_EQ(m_settings.pipeline.camera0.fps, 20);
  EXPECT_EQ(m_settings.pipeline.camera0.streamPort, 9001);
  EXPECT_TRUE(m_settings.pipeline.gps.path.empty()) << "nothing stays from the file before";
  EXPECT_THAT(FormatSettings({}), HasSubstr("\"frameRate\": 38.3,"));
}

TEST(CheckSettings, TellsWhatDoesNotFitTogether) {
  EXPECT_EQ(CheckSettings({}), "");
  const struct {
    std::function<void(Settings&)> change;
    std::string expected;
  } cases[] = {
      {[](Settings& s) { s.pipeline.camera1.fps = 0; }, "field pipeline.camera1.fps: 0 is out of range, 1 to 60"},
      {[](Settings& s) { s.triggers.acceleration.thresholdG = NAN; }, "field triggers.acceleration.thresholdG: "},
      {[](Settings& s) { s.pipeline.camera0.fps = 2; },
       "field pipeline.camera0.previewFps: 3 is more than the 2 of pipeline.camera0.fps"},
      {[](Settings& s) { s.pipeline.camera1.previewHeight = 180; },
       "field pipeline.camera1.previewWidth: 320x180 with pipeline.camera1.previewHeight, but previews are composed of "
       "320x176"},
      {[](Settings& s) {
         s.cameraNames = {"front", "front"};
       },
       "field pipeline.camera1.name: \"front\" is pipeline.camera0.name, too; nobody could tell them apart"},
      {[](Settings& s) { s.pipeline.camera1.previewFps = 5; },
       "field pipeline.camera1.previewFps: 5 is not the 3 of pipeline.camera0.previewFps; one clip shows both"},
      {[](Settings& s) { s.pipeline.camera0.cropEnabled = true, s.pipeline.camera0.width = 640; },
       "field pipeline.camera0.cropEnabled: pictures are 1280x720 after it, "},
      {[](Settings& s) { s.pipeline.camera0.device = "/dev//video0"; },
       "field pipeline.camera1.device: \"/dev/video0\" is pipeline.camera0.device, too; "},
      {[](Settings& s) {
         const auto& [one, other] = std::tie(s.pipeline.camera0, s.pipeline.camera1);
         one.streamEnabled = other.streamEnabled = true;
         one.streamPort = other.streamPort;
       },
       "field pipeline.camera1.streamPort: 9000 is pipeline.camera0.streamPort, too; "},
      {[](Settings& s) { s.pipeline.audio.rate = 48000; },
       "field pipeline.audio.frameRate: 38.3 are not the frames of the 48000 Hz of pipeline.audio.rate, 41.67 is "
       "right"},
      {[](Settings& s) { s.storage.restoreDir = "/mnt/./ramdisk"; },
       "field storage.restoreDir: \"/mnt/./ramdisk\" is storage.workDir, too; "},
      {[](Settings& s) { s.triggers.acceleration.enabled = true, s.pipeline.accEnabled = false; },
       "field triggers.acceleration.enabled: "},
      {[](Settings& s) { s.triggers.acceleration.enabled = true, s.triggers.acceleration.thresholdG = 4.5; },
       "field triggers.acceleration.thresholdG: 4.5 is more than the 4 of pipeline.acc.scale"},
      {[](Settings& s) {
         s.triggers.acceleration.enabled = s.triggers.lowSpeed.enabled = true;
         s.pipeline.gpsEnabled = false;
       },
       "field triggers.lowSpeed.enabled: "},
      {[](Settings& s) {
         auto& p = s.pipeline;
         p.camera0Enabled = p.camera1Enabled = p.audioEnabled = p.gpsEnabled = p.accEnabled = p.otherEnabled = false;
       },
       "field pipeline: no source is enabled"},
  };
  for (const auto& c : cases) {
    Settings settings;
    c.change(settings);
    EXPECT_THAT(CheckSettings(settings), testing::StartsWith(c.expected));
  }
}

// What is left out cannot clash: a mistake would refuse a unit with one camera.
TEST(CheckSettings, LeavesAloneWhatIsNotUsed) {
  Settings settings;
  settings.pipeline.camera0.device = settings.pipeline.camera1.device;
  settings.simulate = true;
  settings.pipeline.camera0.streamPort = settings.pipeline.camera1.streamPort;
  settings.pipeline.camera0.previewEnabled = false;
  settings.pipeline.camera0.previewFps = 20;
  EXPECT_EQ(CheckSettings(settings), "");
  settings.simulate = settings.pipeline.camera0Enabled = false;
  settings.pipeline.camera0.streamEnabled = settings.pipeline.camera1.streamEnabled = true;
  settings.pipeline.camera0.previewEnabled = true;
  EXPECT_EQ(CheckSettings(settings), "");
}

TEST(SettingsDocument, HasTheTableOfFields) {
  EXPECT_THAT(Tavi::Testing::ReadFile(SETTINGS_DOCUMENT), HasSubstr(FormatFieldTable()));
}

}  // namespace
