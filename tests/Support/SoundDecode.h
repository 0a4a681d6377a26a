// Decodes the sound of a produced file as a player would.
#pragma once

#include <string>
#include <vector>

namespace Tavi::Testing {

struct DecodedSound {
  int sampleRate = 0;
  /// When the first sample is heard, in seconds of the file.
  double startSeconds = 0.0;
  /// The first channel, -1 to 1; empty when the file has no sound.
  std::vector<float> samples;
  int decodeErrors = 0;
};

DecodedSound DecodeSound(const std::string& path);
/// Times at which silence turns into sound, in seconds of the file.
std::vector<double> FindTicks(const DecodedSound& sound);

}  // namespace Tavi::Testing
