// Splitting streams: every access unit and MP3 frame found where it is, and nothing read past hostile bytes.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <random>
#include <string>

#include "KMedia/H264/AnnexB.h"
#include "KMedia/H264/TailCheck.h"
#include "KMedia/Mp3/Mp3Frames.h"
#include "Support/VideoEncode.h"

namespace {

using namespace Tavi::Testing;
using KMedia::H264::IsLastUnitWhole;
using KMedia::H264::SplitAccessUnits;
using KMedia::Mp3::SplitMp3Frames;

/// Encoder settings that put more than one slice into a picture, or code them differently.
const char* const EncoderVariants[] = {"", "slices=4", "cabac=1:slices=2", "aud=1", "sliced-threads=1:threads=2"};

TEST(AnnexB, FindsTheAccessUnitsAsTheEncoderMadeThem) {
  for (const char* options : EncoderVariants) {
    const auto units = EncodeH264(160, 96, 15, 15, 40, options);
    const auto stream = Join(units);
    const auto found = SplitAccessUnits(stream);
    ASSERT_EQ(found.units.size(), units.size()) << options;
    for (std::size_t i = 0; i < units.size(); ++i) {
      const std::vector<std::uint8_t> bytes(found.units[i].bytes.begin(), found.units[i].bytes.end());
      ASSERT_EQ(bytes, units[i]) << options << ", unit " << i;
      EXPECT_EQ(found.units[i].isIdr, i % 15 == 0);
    }
    EXPECT_EQ(found.trailingBytes, 0U);
    EXPECT_FALSE(found.parameterSets.empty());
  }
}

TEST(AnnexB, AStreamThatStartsWithinAGroupBeginsAtItsFirstIdr) {
  auto units = EncodeH264(160, 96, 15, 15, 40);
  units.erase(units.begin(), units.begin() + 7);
  const auto stream = Join(units);
  const auto found = SplitAccessUnits(stream);
  EXPECT_EQ(found.units.size(), 40U - 15U);
  EXPECT_TRUE(found.units.front().isIdr);
  EXPECT_FALSE(found.parameterSets.empty());
}

TEST(AnnexB, RandomAndRepetitiveBytesHarmNobody) {
  std::mt19937 random(1);
  for (int round = 0; round < 2000; ++round) {
    std::vector<std::uint8_t> bytes(random() % 200);
    // Few values, so that start codes are frequent.
    for (auto& byte : bytes)
      byte = static_cast<std::uint8_t>(std::array{0, 0, 0, 1, 0x65, 0x67, 0x88, 0x41}[random() % 8]);
    const auto found = SplitAccessUnits(bytes);
    std::size_t covered = 0;
    for (const auto& unit : found.units) covered += unit.bytes.size();
    ASSERT_LE(covered + found.trailingBytes, bytes.size());
  }
  EXPECT_TRUE(SplitAccessUnits(std::vector<std::uint8_t>(100000, 0)).units.empty());
  const std::vector<std::uint8_t> nothingToDecodeWith{0, 0, 1, 0x65, 0x88, 0x80, 0, 0, 1, 0x41, 0x9A, 0x80};
  EXPECT_TRUE(SplitAccessUnits(nothingToDecodeWith).units.empty());
}

TEST(TailCheck, FindsACutAtAnyPlaceAndNoneInWholeStreams) {
  int missed = 0;
  int checked = 0;
  for (const char* options : EncoderVariants) {
    for (const int frames : {1, 2, 14, 15, 16, 29}) {
      const auto units = EncodeH264(320, 176, 15, 15, frames, options);
      const auto whole = Join(units);
      EXPECT_TRUE(IsLastUnitWhole(SplitAccessUnits(whole))) << options << ", " << frames << " frames";
      const std::size_t last = units.back().size();
      for (const std::size_t cut :
           {std::size_t{1}, std::size_t{2}, std::size_t{7}, last / 4, last / 2, last - last / 8}) {
        // Arithmetic decoders read two bytes ahead and do without them at the end of a picture.
        if (cut < 3 && std::string(options).find("cabac=1") != std::string::npos) continue;
        auto shorter = whole;
        shorter.resize(whole.size() - cut);
        const auto found = SplitAccessUnits(shorter);
        if (found.units.size() < units.size()) continue;  // so little is left that it is no picture at all
        ++checked;
        missed += IsLastUnitWhole(found) ? 1 : 0;
      }
    }
  }
  EXPECT_GT(checked, 100);
  EXPECT_EQ(missed, 0) << "of " << checked;
}

TEST(TailCheck, WholePicturesThatReferToManyOthersAreNoAlarm) {
  for (const char* options : {"ref=4", "cabac=1:ref=3:slices=2", "interlaced=1"}) {
    std::vector<std::uint8_t> stream;
    int number = 0;
    for (const auto& unit : EncodeH264(320, 176, 30, 30, 45, options)) {
      stream.insert(stream.end(), unit.begin(), unit.end());
      EXPECT_TRUE(IsLastUnitWhole(SplitAccessUnits(stream))) << options << ", unit " << number;
      ++number;
    }
  }
}

TEST(Mp3Frames, FindsWholeFramesBetweenTagsAndGarbage) {
  const auto music = EncodeMp3(2.0);
  const auto plain = SplitMp3Frames(music);
  EXPECT_NEAR(static_cast<double>(plain.frames.size()), 2.0 * 44100 / 1152, 3.0);
  EXPECT_EQ(plain.sampleRate, 44100);
  EXPECT_EQ(plain.channels, 1);
  EXPECT_EQ(plain.samplesPerFrame, 1152);

  std::vector<std::uint8_t> tagged{'I', 'D', '3', 4, 0, 0, 0, 0, 1, 2};
  tagged.resize(10 + 130, 0xFF);
  tagged.insert(tagged.end(), music.begin(), music.end());
  tagged.insert(tagged.end(), {'T', 'A', 'G'});
  tagged.resize(tagged.size() + 125, ' ');
  EXPECT_EQ(SplitMp3Frames(tagged).frames.size(), plain.frames.size());

  // An encoder's information frame is one of the stream's own kind, silent, with a tag behind the side information.
  std::vector<std::uint8_t> informed(plain.frames[0].begin(), plain.frames[0].end());
  std::fill(informed.begin() + 4, informed.end(), std::uint8_t{0});
  std::memcpy(informed.data() + 4 + 17, "Info", 4);
  informed.insert(informed.end(), music.begin(), music.end());
  EXPECT_EQ(SplitMp3Frames(informed).frames.size(), plain.frames.size());

  auto cut = music;
  cut.resize(cut.size() - 10);
  EXPECT_EQ(SplitMp3Frames(cut).frames.size(), plain.frames.size() - 1);

  std::mt19937 random(2);
  for (int round = 0; round < 500; ++round) {
    std::vector<std::uint8_t> bytes(random() % 300);
    for (auto& byte : bytes) byte = static_cast<std::uint8_t>(random() % 3 == 0 ? 0xFF : random());
    for (const auto& frame : SplitMp3Frames(bytes).frames) {
      ASSERT_LE(frame.data() + frame.size(), bytes.data() + bytes.size());
    }
  }
}

}  // namespace
