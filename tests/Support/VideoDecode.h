// Opens a produced file as a player would and decodes every frame of it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Tavi::Testing {

struct DecodedFrame {
  double seconds = 0.0;
  /// A decoder can start here, as the container says.
  bool key = false;
  /// 0 (black) to 255.
  double meanLuma = 0.0;
};

struct DecodedVideo {
  /// False when the file could not be opened or has no video.
  bool opened = false;
  std::vector<DecodedFrame> frames;
  int decodeErrors = 0;
  int width = 0;
  int height = 0;
  /// Frames per second as a fraction, and the track's duration, as the container states them.
  int rateNumerator = 0;
  int rateDenominator = 1;
  double durationSeconds = 0.0;
  /// "avc1" with the parameter sets in the header.
  std::string codecTag;
  bool hasHeaderParameterSets = false;
  /// The index stands before the data.
  bool indexFirst = false;
  /// Sound packets, 0 without sound.
  int audioPackets = 0;
  double audioSeconds = 0.0;
  bool audioIsMp3 = false;
};

DecodedVideo DecodeVideo(const std::string& path);

/// Times at which the picture turns white, in seconds of the file.
std::vector<double> FindFlashes(const DecodedVideo& video);

}  // namespace Tavi::Testing
