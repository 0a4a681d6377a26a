// Splitting streams: every access unit and MP3 frame found where it is, and nothing read past hostile bytes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>

#include "KMedia/H264/AnnexB.h"
#include "KMedia/H264/TailCheck.h"
#include "KMedia/Mp3/Mp3Frames.h"
#include "Simulator/EncodedMaterial.h"

namespace {

using namespace Tavi::Simulator;
using KMedia::H264::IsLastUnitWhole;
using KMedia::H264::SplitAccessUnits;
using KMedia::Mp3::SplitMp3Frames;
using Bytes = std::vector<std::uint8_t>;

TEST(AnnexB, FindsTheUnitsThatTheEncoderMadeAndCutsInTheLast) {
  int checked = 0;
  for (const std::string options : {"", "slices=4", "cabac=1:ref=3:slices=2", "aud=1", "ref=4", "interlaced=1"}) {
    SCOPED_TRACE(options);
    const auto units = EncodeH264(320, 176, 15, 15, 31, options);
    for (std::size_t count = 1; count <= units.size(); ++count) {
      const auto stream = Join({units.begin(), units.begin() + static_cast<std::ptrdiff_t>(count)});
      const auto found = SplitAccessUnits(stream);
      ASSERT_EQ(found.units.size(), count);
      EXPECT_TRUE(std::ranges::equal(found.units.back().bytes, units[count - 1])) << count;
      EXPECT_EQ(found.units.back().isIdr, count % 15 == 1) << count;
      EXPECT_TRUE(IsLastUnitWhole(found)) << count;
      const std::size_t last = units[count - 1].size();
      for (const std::size_t cut : {std::size_t{1}, std::size_t{7}, last / 4, last * 3 / 5, last * 7 / 8}) {
        // Arithmetic decoders read ahead, and do without the last few bytes of a picture.
        if (cut <= 7 && options.starts_with("cabac")) continue;
        const auto shorter = SplitAccessUnits(std::span(stream).first(stream.size() - cut));
        if (shorter.units.size() < count) continue;  // so little is left that it is no picture at all
        EXPECT_FALSE(IsLastUnitWhole(shorter)) << count << " frames, cut by " << cut;
        ++checked;
      }
    }
    const auto later = Join({units.begin() + 7, units.end()});
    EXPECT_EQ(SplitAccessUnits(later).units.size(), 31U - 15U) << "nothing can be decoded before the next IDR picture";
  }
  EXPECT_GT(checked, 700);
}

TEST(Mp3Frames, FindsWholeFramesBetweenTags) {
  const auto music = EncodeMp3(2.0);
  const auto plain = SplitMp3Frames(music);
  const std::size_t count = plain.frames.size();
  EXPECT_NEAR(static_cast<double>(count), 2.0 * 44100 / 1152, 3.0);
  EXPECT_EQ(plain.sampleRate, 44100);
  EXPECT_EQ(plain.channels, 1);
  EXPECT_EQ(plain.samplesPerFrame, 1152);
  EXPECT_EQ(SplitMp3Frames(std::span(music).first(music.size() - 10)).frames.size(), count - 1);

  Bytes front{'I', 'D', '3', 4, 0, 0, 0, 0, 1, 2};
  front.resize(10 + 130, 0xFF);
  Bytes back{'T', 'A', 'G'};
  back.resize(128, ' ');
  EXPECT_EQ(SplitMp3Frames(Join({front, music, back})).frames.size(), count);
  // An encoder's information frame is one of the stream's own kind, silent, with a tag behind the side information.
  Bytes information(plain.frames[0].begin(), plain.frames[0].end());
  ASSERT_GT(information.size(), 4U + 17 + 4);
  std::fill(information.begin() + 4, information.end(), std::uint8_t{0});
  std::memcpy(information.data() + 4 + 17, "Info", 4);
  EXPECT_EQ(SplitMp3Frames(Join({information, music})).frames.size(), count);
}

TEST(Splitting, HostileBytesHarmNobody) {
  // Few values, so that start codes and synchronisation words are frequent.
  const Bytes values{0, 0, 0, 1, 0x65, 0x67, 0x88, 0x41, 0xFF, 0xFF, 0xFB, 0x90};
  std::mt19937 random(1);
  for (unsigned round = 0; round < 4000; ++round) {
    Bytes bytes(random() % 300);
    for (auto& byte : bytes) byte = round % 2 == 0 ? values[random() % 8] : values[random() % values.size()];
    const auto found = SplitAccessUnits(bytes);
    std::size_t covered = found.trailingBytes;
    for (const auto& unit : found.units) covered += unit.bytes.size();
    ASSERT_LE(covered, bytes.size());
    for (const auto& frame : SplitMp3Frames(bytes).frames) ASSERT_LE(&frame.back(), &bytes.back());
  }
  EXPECT_TRUE(SplitAccessUnits(Bytes(100000, 0)).units.empty());
  EXPECT_TRUE(SplitAccessUnits(Bytes{0, 0, 1, 0x65, 0x88, 0x80, 0, 0, 1, 0x41, 0x9A, 0x80}).units.empty());
}

}  // namespace
