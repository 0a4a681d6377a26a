// The console probes: what they print of the newest entry, and what they write of the ring.
#include <gtest/gtest.h>

#include "Support/Media.h"
#include "Tavi/Accel/AccPipelineElement.h"
#include "Tavi/Audio/AudioPipelineElement.h"
#include "Tavi/Gps/GpsPipelineElement.h"
#include "Tavi/Testing/ConsoleProbes.h"
#include "Tavi/Testing/TestGstApi.h"
#include "Tavi/Video/VideoPipelineElement.h"

namespace {

using namespace Tavi;
using Testing::CapturedOutput;
using Testing::MakeBuffer;

class ConsoleProbesTest : public Testing::MediaTest {};

TEST_F(ConsoleProbesTest, BytesAreSignedPartsOfTheFullScale) {
  EXPECT_DOUBLE_EQ(Testing::ConvertAcc(32, 4), 1.0);
  EXPECT_DOUBLE_EQ(Testing::ConvertAcc(0xE0, 4), -1.0);
  EXPECT_DOUBLE_EQ(Testing::ConvertAcc(0x80, 2), -2.0);
  EXPECT_DOUBLE_EQ(Testing::ConvertAcc(127, 8), 127.0 / 16);
  EXPECT_DOUBLE_EQ(Testing::ConvertAcc(127, 3), 127.0 / 42) << "units to a g are whole";
  EXPECT_DOUBLE_EQ(Testing::ConvertAcc(1, 0), 0.0);
  EXPECT_DOUBLE_EQ(Testing::ConvertAcc(1, 200), 0.0);
}

// Catches a probe that reads an entry that is none, or says the newest of another source.
TEST_F(ConsoleProbesTest, TheNewestEntryIsPrintedAndItsAbsenceToo) {
  Video::VideoPipelineElement video(Video::VideoConfig(), 4);
  Audio::AudioPipelineElement audio(nullptr, Audio::AudioConfig(), 4);
  Gps::GpsPipelineElement gps(Gps::GpsConfig(), 4);
  Accel::AccPipelineElement acc(Accel::AccConfig(), 4);
  const auto print = [&] {
    CapturedOutput output;
    Testing::TestVideo(&video);
    Testing::TestAudio(&audio);
    Testing::TestGps(&gps);
    Testing::TestAcc(&acc);
    return output.GetText();
  };
  EXPECT_EQ(print(), "NULL ELEMENT Video...\nNULL ELEMENT Audio...\nNULL ELEMENT GPS...\nNULL ELEMENT ACC...\n");
  for (int i = 0; i < 2; ++i) {
    video.SetEncodedFrame(MakeBuffer("v", 0));
    audio.SetFrame(MakeBuffer("a", 0));
  }
  gps.SetFrame(MakeBuffer("short", 0));
  acc.SetFrame(MakeBuffer("short", 0));
  EXPECT_EQ(print(), "Video Frame ID: 1\nAudio Frame ID: 1\nNULL MAP INFO GPS...\nNULL MAP INFO ACC...\n");
  std::vector<std::uint8_t> native(30, 0);
  native[27] = 32;
  native[28] = 0xF0;
  Kdevice::ACC::SampleBlock block{native.data(), native.size()};
  acc.Invoke(nullptr, &block);
  std::string epoch = "$GPRMC,123519.000,A,4807.038,N,01131.000,E,5,,010720*1F\r\n";
  gps.Invoke(nullptr, epoch.data());
  const std::string printed = print();
  EXPECT_NE(printed.find("Scale: 4 x: 1 y: -0.5 z: 0\nACC Frame ID: 1\n"), std::string::npos) << printed;
  EXPECT_NE(printed.find("GPS Frame ID: 1\nisValidPackage:"), std::string::npos) << printed;
  EXPECT_NE(printed.find("\nrecord_u_time:"), std::string::npos);
}

TEST_F(ConsoleProbesTest, TheRangesEntriesAreWrittenWhole) {
  Audio::AudioPipelineElement audio(nullptr, Audio::AudioConfig(), 8);
  for (int i = 0; i < 6; ++i) audio.SetFrame(MakeBuffer(Testing::EntryText(static_cast<std::uint64_t>(i)), 0));
  const long descriptors = CountDescriptors();
  Testing::WriteAudio(&audio, m_dir + "out", 1, 3);
  EXPECT_EQ(Testing::ReadFile(m_dir + "out"), "<1><2><3>");
  Testing::WriteAudio(nullptr, m_dir + "none", 1, 3);
  EXPECT_FALSE(std::filesystem::exists(m_dir + "none"));
  EXPECT_EQ(CountDescriptors(), descriptors);
}

}  // namespace
