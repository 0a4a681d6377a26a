// Settings of the microphone.
#pragma once

#include <cstdint>
#include <string>

namespace Tavi::Audio {

struct AudioConfig {
  /// MP3 bit rate in kbit/s.
  std::int32_t bitrate = 64;
  /// MP3 frames per second: 44,100 Hz over 1,152 samples a frame (ISO/IEC 11172-3, layer III).
  float frameRate = 38.3F;
  /// Capture gain in the sound card's own scale; -1 leaves the card's mixer untouched.
  std::int32_t gainLevel = -1;
  /// Where the pipeline keeps going: this source missing for long is no reason to restart the unit.
  bool optional = false;
  /// ALSA's name of the capture device ("plughw:1,0"); empty for ALSA's default.
  std::string device;
  /// 1 or 2; 0 leaves it to the device.
  std::int32_t channels = 0;
  /// Samples a second: 32000, 44100 or 48000, with a `frameRate` of as many over 1,152; 0 leaves it to the encoder,
  /// whose is 44100 where the device has it or is converted.
  std::int32_t rate = 0;
};

}  // namespace Tavi::Audio
