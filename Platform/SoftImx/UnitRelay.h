// Leads a camera's own H.264 past the decoder, so that each decoded frame bears the access unit that it came from.
#pragma once

#include <gst/gst.h>

#include <deque>
#include <functional>
#include <mutex>
#include <string>

#include "SoftImx/GridWatch.h"

namespace SoftImx {

/// Keeps the access units on their way through the decoder and matches them with frames by their time stamps.
///
/// Until it is known whether the stream keeps to the grid no frame passes, for about a second; then all do, with their
/// units if it keeps. Thread-safe: units come on the camera's streaming thread, frames perhaps on the decoder's own.
class UnitRelay {
 public:
  /// Is told once what was found: whether frames bear units, and else why not. Called without a lock, on the thread of
  /// Take.
  using Report = std::function<void(bool isObeying, const std::string& reason)>;

  UnitRelay(unsigned interval, Report report);
  ~UnitRelay();

  /// One access unit, borrowed, before it goes into the decoder.
  void Take(GstBuffer* unit);
  /// Whether the decoded frame of this time stamp is to go on.
  [[nodiscard]] bool Passes(GstClockTime frameTime);
  /// Whether frames bear units. Counts once a frame has passed.
  [[nodiscard]] bool IsObeying();
  /// The frame with its unit, where there is one; takes over and hands back the reference.
  [[nodiscard]] GstBuffer* Attach(GstBuffer* frame);

  UnitRelay(const UnitRelay&) = delete;
  UnitRelay& operator=(const UnitRelay&) = delete;

 private:
  void Keep(GstBuffer* unit);

  std::mutex m_mutex;
  GridWatch m_watch;
  Report m_report;
  GridWatch::Verdict m_verdict = GridWatch::Verdict::Open;
  /// Of the first unit that may be used.
  GstClockTime m_fromTime = GST_CLOCK_TIME_NONE;
  bool m_isOpen = false;
  /// Own references, in the order of decoding, which is that of showing.
  std::deque<GstBuffer*> m_units;
};

}  // namespace SoftImx
