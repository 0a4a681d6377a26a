// What the recorder's settings may be, in the file and on the command line.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "Control/RequestLimits.h"
#include "SettingsFile/Range.h"

namespace Tavi::Recorder::Limits {

/// The software encoder's smallest picture to the largest that the unit's video unit encodes (1080p in whole
/// macroblocks).
inline constexpr Range<int> Width{16, 1920};
inline constexpr Range<int> Height{16, 1088};
inline constexpr Range<int> Fps{1, 60};
inline constexpr Range<int> VideoBitrateKbit{64, 50000};
inline constexpr Range<int> CameraNameBytes{0, 40};
/// The names by which the software encoder knows its kinds.
inline constexpr std::array<std::string_view, 5> Encoders{"auto", "v4l2", "vaapi", "x264", "openh264"};
inline constexpr Range<int> Port{1, 65535};
inline constexpr Range<int> PreviewFps{1, 30};
/// 30 s of 30 small frames of 84 kB are 76 MB a camera.
inline constexpr Range<int> PreviewSeconds{1, 30};

/// The bit rates of MPEG-1 audio, layer III, in kbit/s (ISO/IEC 11172-3).
inline constexpr std::array<int, 14> Mp3BitratesKbit{32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320};
/// Its sampling rates, 32 to 48 kHz, over 1,152 samples a frame.
inline constexpr Range<double> Mp3FrameRate{27.7, 41.7};
/// -1 leaves the mixer untouched.
inline constexpr Range<int> Gain{-1, 1000000};

inline constexpr Range<int> Channels{0, 2};
inline constexpr std::array<int, 4> SampleRates{0, 32000, 44100, 48000};

inline constexpr Range<int> GpsRate{1, 10};
inline constexpr std::array<int, 9> GpsBauds{4800, 9600, 19200, 38400, 57600, 115200, 230400, 460800, 921600};
/// What the drivers deliver. Windows are counted by the stated rate: any other would wait for minutes.
inline constexpr Range<int> AccRate{10, 10};
inline constexpr Range<int> OtherRate{1, 1};
inline constexpr Range<int> I2cBus{0, 255};
/// By the pin SA0 (MMA8451Q data sheet, I2C device address).
inline constexpr std::array<int, 2> AccAddresses{0x1C, 0x1D};
inline constexpr std::array<int, 3> AccScales{2, 4, 8};
inline constexpr Range<int> AxesBytes{5, 8};
/// Both at once leave gravity something to be on the first axis.
inline constexpr Range<double> RestG{-0.7, 0.7};

inline constexpr Range<int> RestartAfterSeconds{0, 3600};
/// Up to a week.
inline constexpr Range<int> RestartUnitAfterMinutes{0, 10080};

inline constexpr Range<int> QueueLength{1, 1000};

/// 1 PiB: more than any medium has, and exact in every number format.
inline constexpr Range<std::int64_t> StorageBytes{0, std::int64_t{1} << 50};
inline constexpr Range<int> MaxEvents{0, 1000000};
/// From a fraction of what the default cameras make to more than any disk of a unit writes.
inline constexpr Range<double> CopyAheadMBps{0.1, 1000.0};

/// The accelerometer measures up to 8 g; below a twentieth the road alone would be an event.
inline constexpr Range<double> ThresholdG{0.05, 8.0};
inline constexpr Range<int> HoldMs{0, 10000};
inline constexpr Range<int> RearmSeconds{0, 3600};
inline constexpr Range<double> SpeedKnots{0.0, 200.0};

/// Up to what every file system and every reader can bear.
inline constexpr Range<std::int64_t> LogFileBytes{0, std::int64_t{1} << 30};
inline constexpr Range<int> LogFileCount{1, 100};

using SettingsFile::OptionalPathBytes;
using SettingsFile::PathBytes;
using SettingsFile::SocketPathBytes;
/// What groupadd(8) makes at most; none for no group.
inline constexpr Range<int> GroupBytes{0, 32};

/// The preview clip is composed of pictures of this size.
inline constexpr int PreviewWidth = 320;
inline constexpr int PreviewHeight = 176;
/// The picture that is left after cropping.
inline constexpr int CroppedWidth = 1280;
inline constexpr int CroppedHeight = 720;

}  // namespace Tavi::Recorder::Limits
