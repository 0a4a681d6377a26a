// Scaling a frame: the picture ends up where it belongs, and too small records are refused.
#include <gtest/gtest.h>

#include <vector>

#include "KMedia/ImgUtils/IpuFrame.h"

namespace {

using namespace KMedia::ImgUtils;

struct Picture {
  Picture(int width, int height) : layout(width, height), bytes(layout.size, 128) {
    record.data = bytes.data();
    record.size = bytes.size();
    record.width = static_cast<std::uint16_t>(width);
    record.height = static_cast<std::uint16_t>(height);
  }
  static std::size_t At(int stride, int x, int y) { return static_cast<std::size_t>(std::int64_t{stride} * y + x); }
  std::uint8_t& Luma(int x, int y) { return bytes[At(layout.lumaStride, x, y)]; }
  std::uint8_t& U(int x, int y) { return bytes[layout.uOffset + At(layout.chromaStride, x, y)]; }

  I420Layout layout;
  std::vector<std::uint8_t> bytes;
  KframeBuffer record;
};

TEST(IpuFrame, ScalesEveryPlaneIntoTheTargetsOwnLayout) {
  const int cases[][4] = {{1280, 720, 280, 160}, {640, 352, 1280, 720}, {321, 177, 99, 51}, {64, 64, 64, 64}};
  for (const auto& [fromWidth, fromHeight, toWidth, toHeight] : cases) {
    // Dark on the left, and another colour in the upper half.
    Picture from(fromWidth, fromHeight);
    for (int y = 0; y < fromHeight; ++y) {
      for (int x = 0; x < fromWidth; ++x) {
        from.Luma(x, y) = x < fromWidth / 2 ? 20 : 220;
        from.U(x / 2, y / 2) = y < fromHeight / 2 ? 60 : 200;
      }
    }
    Picture to(toWidth, toHeight);
    ASSERT_TRUE(IpuFrame(&from.record).RenderFrame(&to.record));
    EXPECT_NEAR(to.Luma(toWidth / 4, toHeight / 2), 20, 2);
    EXPECT_NEAR(to.Luma(toWidth * 3 / 4, toHeight / 2), 220, 2);
    EXPECT_NEAR(to.U(toWidth / 4, toHeight / 8), 60, 2);
    EXPECT_NEAR(to.U(toWidth / 4, toHeight * 3 / 8), 200, 2);
  }
}

TEST(IpuFrame, RecordsThatAreTooSmallAreRefused) {
  Picture from(64, 64);
  Picture to(32, 32);
  EXPECT_FALSE(IpuFrame(nullptr).RenderFrame(&to.record));
  EXPECT_FALSE(IpuFrame(&from.record).RenderFrame(nullptr));
  for (auto* record : {&from.record, &to.record}) {
    --record->size;
    EXPECT_FALSE(IpuFrame(&from.record).RenderFrame(&to.record));
    ++record->size;
  }
}

}  // namespace
