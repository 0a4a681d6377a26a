// What a decoder has to know before a camera's first picture, and how the pictures are framed.
#pragma once

#include <gst/gst.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
#include <vector>

#include "Tavi/GstUtil/GstRef.h"

namespace Tavi::Video {

/// Never changed once it is made: ring entries share it.
struct StreamSetup {
  /// Sequence and picture parameter sets as a byte stream (Rec. ITU-T H.264, annex B).
  std::vector<std::uint8_t> parameterSets;
  /// Bytes of the length in front of each NAL unit (ISO/IEC 14496-15); 0 in a byte stream.
  unsigned int lengthSize = 0;
};

/// Remembers the newest parameter sets of one encoder. Some encoders send them with each IDR picture, some once, and
/// some only in their caps, while a clip may begin with any IDR picture. Belongs to the streaming thread; looks at the
/// first bytes of key frames only.
class SetupTracker {
 public:
  /// The encoder's caps, borrowed, may be null. What has been looked at before costs nothing.
  void TakeCaps(GstCaps* caps);
  /// The setup that holds for the access unit, null while none is known.
  std::shared_ptr<const StreamSetup> Follow(GstBuffer* accessUnit);

 private:
  GstUtil::GstRef<GstCaps> m_caps;
  std::shared_ptr<const StreamSetup> m_setup;
};

/// True when the access unit brings a sequence and a picture parameter set of its own.
bool HasParameterSets(std::span<const std::uint8_t> accessUnit, unsigned int lengthSize);

/// The NAL units of an access unit that has a length of `lengthSize` bytes, at least one, in front of each; none when
/// the lengths do not fit the bytes. They point into it.
std::vector<std::span<const std::uint8_t>> SplitByLengths(std::span<const std::uint8_t> accessUnit,
                                                          unsigned int lengthSize);

/// Writes the access unit as a byte stream, whatever its framing. False when the file takes no more or the lengths do
/// not fit the bytes.
bool WriteAccessUnit(FILE* file, std::span<const std::uint8_t> accessUnit, unsigned int lengthSize);

}  // namespace Tavi::Video
