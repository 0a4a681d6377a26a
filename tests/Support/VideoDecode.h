// Opens a produced file as a player would and decodes every frame of it.
#pragma once

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
  /// The frames as they were encoded.
  std::vector<std::string> packets;
  int decodeErrors = 0;
  int width = 0;
  int height = 0;
  /// Frames per second as a fraction, and the duration, as the container states them.
  int rateNumerator = 0;
  int rateDenominator = 1;
  double durationSeconds = 0.0;
  std::string codecTag;
  /// The index stands before the data.
  bool indexFirst = false;
  /// Duration of the MP3 sound, 0 without.
  double audioSeconds = 0.0;
};

DecodedVideo DecodeVideo(const std::string& path);
/// Times at which the picture turns white, in seconds of the file.
std::vector<double> FindFlashes(const DecodedVideo& video);

}  // namespace Tavi::Testing
