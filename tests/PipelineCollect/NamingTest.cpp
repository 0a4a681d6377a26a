// File names of an event and the record that ties them together.
#include <gtest/gtest.h>

#include "Tavi/PipelineCollect/PipelineCollect.h"

namespace {

using namespace Tavi::PipelineCollect;

TEST(CollectNaming, TheCamerasCrossOverAndUnknownTypesHaveNoName) {
  for (const auto& [value, name] : {std::pair(0, "video1_x.h264"),
                                    {1, "video0_x.h264"},
                                    {2, "audio_x.mp3"},
                                    {6, "thumbnail1_x.jpg"},
                                    {8, "preview_x.h264"},
                                    {9, "x"},
                                    {-1, "x"}}) {
    const PipelineCollect collector(nullptr, static_cast<PipelineCollectType>(value));
    EXPECT_EQ(collector.GetPipelineCollectFileName("x"), name);
  }
}

}  // namespace
