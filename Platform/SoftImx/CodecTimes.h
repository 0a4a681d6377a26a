// The time stamps of what a codec makes, as its frames have them.
#pragma once

#include <gst/gst.h>

#include <atomic>

namespace SoftImx {

/// Takes back what encoders do to make room for negative decoding times: they start at 1000 hours, and move their
/// segment by the same amount.
///
/// Restore belongs to the codec's streaming thread.
class CodecTimes {
 public:
  /// Of a probe on the codec's source pad, for each buffer and downstream event: the segment of what the codec was
  /// given takes the place of its own, and the difference is taken off each buffer.
  void Restore(GstPad* pad, GstPadProbeInfo* info);

 private:
  GstEvent* RestoreSegment(GstPad* pad, GstEvent* event);

  /// GStreamer orders one streaming thread after the one before, which no sanitizer sees.
  std::atomic<GstClockTime> m_shift{0};
};

}  // namespace SoftImx
