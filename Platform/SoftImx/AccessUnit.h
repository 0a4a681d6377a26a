// What an H.264 access unit holds, as far as the grid of key frames goes, and frames that bear their camera's own.
#pragma once

#include <gst/gst.h>

namespace SoftImx {

struct UnitFacts {
  bool isIdr = false;
  bool hasSps = false;
  bool hasPps = false;
  bool hasB = false;

  /// Whether a decoder can start here.
  [[nodiscard]] bool IsEntry() const { return isIdr && hasSps && hasPps; }
};

/// Looks through one access unit of a byte stream (Rec. ITU-T H.264, annex B). All false where it cannot be read.
[[nodiscard]] UnitFacts Inspect(GstBuffer* unit);

/// Puts the camera's own encoding of a frame on the frame, which must be writable; the frame holds a reference. Copies
/// of the frame bear it, too; what changes its pixels takes it off.
void AttachUnit(GstBuffer* frame, GstBuffer* unit);

/// What AttachUnit has put on the frame, borrowed; null for none.
[[nodiscard]] GstBuffer* UnitOf(GstBuffer* frame);

}  // namespace SoftImx
