// Stills: colours, odd sizes, and disks that do not take them.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <turbojpeg.h>

#include "KMedia/ImgUtils/Thumbnail.h"
#include "Support/Fixtures.h"

namespace {

using ThumbnailTest = Tavi::Testing::TempDirTest;

/// A still of a frame that is white above and red below, in video range.
bool MakeStill(std::uint16_t width, std::uint16_t height, std::string path, unsigned toWidth, unsigned toHeight) {
  const KMedia::ImgUtils::I420Layout at(width, height);
  std::vector<std::uint8_t> pixels(at.size, 128);
  std::fill_n(pixels.begin(), at.uOffset, 235);
  for (const auto& [from, to, red] :
       {std::tuple(0UL, at.uOffset, 81), {at.uOffset, at.vOffset, 90}, {at.vOffset, at.size, 240}}) {
    std::fill_n(&pixels[(from + to) / 2], (to - from) / 2, red);
  }
  KMedia::ImgUtils::KframeBuffer frame{pixels.data(), 0, at.size, 0, width, height, 0};
  return KMedia::ImgUtils::CreateThumbnail(&frame, path.data(), toWidth, toHeight);
}

// Catches planes that are swapped or shifted, and a white that is grey.
TEST_F(ThumbnailTest, WhiteIsWhiteAndRedIsRedInEverySize) {
  for (const auto& [from, width, height] : {std::array{720, 280, 160}, {353, 99, 51}, {48, 281, 161}}) {
    ASSERT_TRUE(MakeStill(std::uint16_t(from + 1), std::uint16_t(from), m_dir + "x.jpg", width, height));
    std::string file = Tavi::Testing::ReadFile(m_dir + "x.jpg");
    auto* bytes = reinterpret_cast<unsigned char*>(file.data());
    std::array<int, 3> shape{};
    const tjhandle decoder = tjInitDecompress();
    tjDecompressHeader2(decoder, bytes, file.size(), &shape[0], &shape[1], &shape[2]);
    ASSERT_EQ(shape, (std::array<int, 3>{width, height, TJSAMP_420}));
    std::vector<std::array<std::uint8_t, 3>> rgb(std::size_t(width) * std::size_t(height));
    EXPECT_EQ(tjDecompress2(decoder, bytes, file.size(), rgb[0].data(), width, 0, height, TJPF_RGB, 0), 0);
    tjDestroy(decoder);
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(rgb.front()[c], 255, 6) << width;
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(rgb.back()[c], c == 0 ? 255 : 0, 6) << width;
  }
}

TEST_F(ThumbnailTest, WhatCannotBeWrittenLeavesNothingBehind) {
  const std::string full = m_dir + "full";
  std::filesystem::create_directory(full);
  if (mount("tmpfs", full.c_str(), "tmpfs", 0, "size=4k") != 0) GTEST_SKIP() << "nothing can be mounted";
  for (const auto& path : {m_dir + "missing/x.jpg", full, full + "/x.jpg"}) {
    EXPECT_FALSE(MakeStill(64, 48, path, 1280, 720));
    EXPECT_EQ(CountLogged("cannot make the thumbnail " + path + ": "), 1) << GetLog();
  }
  const std::filesystem::recursive_directory_iterator left(m_dir);
  EXPECT_EQ(std::distance(begin(left), end(left)), 1) << "the directory alone";
  umount(full.c_str());
}

}  // namespace
