// Console probes for manual debugging: what a source's ring holds right now. Nothing in the system calls them.
#pragma once

#include <string>

namespace Tavi::Video {
class VideoPipelineElement;
}
namespace Tavi::Audio {
class AudioPipelineElement;
}
namespace Tavi::Gps {
class GpsPipelineElement;
}
namespace Tavi::Accel {
class AccPipelineElement;
}

namespace Tavi::Testing {

/// Writes the newest entry's frame id to standard output, or "NULL ELEMENT Video..." when there is none.
void TestVideo(Video::VideoPipelineElement* element);
/// The same with "NULL ELEMENT Audio...".
void TestAudio(Audio::AudioPipelineElement* element);

/// Writes the newest fix to standard output, a value a line (units as in GpsData), or "NULL ELEMENT GPS..." without
/// one.
void TestGps(Gps::GpsPipelineElement* element);

/// Writes the newest block's last sample in g to standard output as the chip delivered it, not averaged, or "NULL
/// ELEMENT ACC..." without one.
void TestAcc(Accel::AccPipelineElement* element);

/// Writes the access units at the ring indexes `first` to `last` (wrapped, inclusive) into a new file at `path`. Slots
/// without an entry are passed over.
void WriteVideo(Video::VideoPipelineElement* element, const std::string& path, int first, int last);
/// The same with MP3 frames.
void WriteAudio(Audio::AudioPipelineElement* element, const std::string& path, int first, int last);

/// A raw accelerometer byte in g, for a full scale of +-`scale` g (a divisor of 128): the signed reading over the
/// integer quotient 128 / `scale`.
double ConvertAcc(unsigned char value, unsigned char scale);

}  // namespace Tavi::Testing
