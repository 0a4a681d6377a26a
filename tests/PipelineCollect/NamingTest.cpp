// File names of an event and the record that ties them together.
#include <gtest/gtest.h>

#include "PipelineCollect/PipelineCollect.h"

namespace {

using namespace Tavi::PipelineCollect;

TEST(CollectNaming, TheCamerasCrossOverAndUnknownTypesHaveNoName) {
  const struct {
    int value;
    const char* prefix;
    const char* extension;
  } cases[] = {{0, "video1_", ".h264"},     {1, "video0_", ".h264"},     {2, "audio_", ".mp3"},
               {3, "gps_", ".dat"},         {4, "acc_", ".dat"},         {5, "other_", ".dat"},
               {6, "thumbnail1_", ".jpg"}, {7, "thumbnail0_", ".jpg"}, {8, "preview_", ".h264"},
               {9, "", ""},                 {-1, "", ""}};
  for (const auto& c : cases) {
    std::string prefix = "old";
    std::string extension = "old";
    const auto type = static_cast<PipelineCollectType>(c.value);
    CollectBase::GetPipelineCollectPrefixAndExtension(type, prefix, extension);
    EXPECT_EQ(prefix, c.prefix) << c.value;
    EXPECT_EQ(extension, c.extension) << c.value;
    PipelineCollect collector(nullptr, type, "COLLECT-TEST");
    EXPECT_EQ(collector.GetPipelineCollectFileName("x"), std::string(c.prefix) + "x" + c.extension);
  }
}

TEST(CollectNaming, TheFirstFileOfATypeStays) {
  PipelineCollectOutput output;
  EXPECT_EQ(output.GetOutputPath(PipelineCollectType::Gps), "");
  output.AddOutput(PipelineCollectType::Gps, "a");
  output.AddOutput(PipelineCollectType::Gps, "b");
  EXPECT_EQ(output.GetOutputPath(PipelineCollectType::Gps), "a");
  output.RemoveOutput(PipelineCollectType::Gps);
  output.RemoveOutput(PipelineCollectType::Acc);
  EXPECT_TRUE(output.outputs.empty());
}

}  // namespace
