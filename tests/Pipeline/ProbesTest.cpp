// The console probes print what they find and survive finding nothing.
#include <gtest/gtest.h>

#include "Support/Media.h"
#include "Testing/ConsoleProbes.h"
#include "Video/VideoPipelineElement.h"

namespace {

using Tavi::Testing::CapturedOutput;
using Tavi::Testing::MakeBuffer;
using Tavi::Testing::ReadFile;

class ProbesTest : public Tavi::Testing::MediaTest {};

TEST_F(ProbesTest, PrintAndWriteWhatTheRingHolds) {
  Tavi::Video::VideoConfig config;
  config.device = "sim:probe";
  Tavi::Video::VideoPipelineElement camera(config, 4);
  CapturedOutput output;
  Tavi::Testing::TestVideo(nullptr);
  Tavi::Testing::TestVideo(&camera);
  for (const char* unit : {"a", "b", "c", "d", "e", "f"}) camera.SetEncodedFrame(MakeBuffer(unit, 0));
  Tavi::Testing::TestVideo(&camera);
  EXPECT_EQ(output.GetText(), "NULL ELEMENT Video...\nNULL ELEMENT Video...\nVideo Frame ID: 5\n");
  Tavi::Testing::WriteVideo(&camera, m_dir + "stream", 2, 5);
  EXPECT_EQ(ReadFile(m_dir + "stream"), "cdef") << "the range wraps at the ring's end";
}

TEST_F(ProbesTest, ConvertsRawAccelerationWithAnIntegerDivisor) {
  EXPECT_EQ(Tavi::Testing::ConvertAcc(0x80, 4), -4.0);
  EXPECT_EQ(Tavi::Testing::ConvertAcc(0x20, 2), 0.5);
  EXPECT_EQ(Tavi::Testing::ConvertAcc(42, 3), 1.0) << "128 / 3 is 42";
  EXPECT_EQ(Tavi::Testing::ConvertAcc(1, 0), 0.0);
}

}  // namespace
