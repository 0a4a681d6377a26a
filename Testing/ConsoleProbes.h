// Console probes for manual debugging: what a source's ring holds right now. Nothing in the system calls them.
#pragma once

#include <string>

namespace Tavi::Video {
class VideoPipelineElement;
}

namespace Tavi::Testing {

/// Writes the newest entry's frame id to standard output, or "NULL ELEMENT Video..." when there is none.
void TestVideo(Video::VideoPipelineElement* element);

/// Writes the access units at the ring indexes `first` to `last` (wrapped, inclusive) into a new file at `path`. Slots
/// without an entry are passed over.
void WriteVideo(Video::VideoPipelineElement* element, const std::string& path, int first, int last);

/// A raw accelerometer byte in g, for a full scale of +-`scale` g (a divisor of 128): the signed reading over the
/// integer quotient 128 / `scale`.
double ConvertAcc(unsigned char value, unsigned char scale);

}  // namespace Tavi::Testing
