// The clock that a sound card makes, which cameras go by as well.
#pragma once

#include <gst/audio/gstaudiobasesrc.h>
#include <gst/gst.h>

#include <atomic>
#include <memory>
#include <mutex>

#include "Tavi/GstUtil/GstRef.h"

namespace Tavi::Audio {

/// Tells the samples of one audio source's card, and goes on by the steady clock from where they stop making sense: as
/// soon as the source has failed, or is a fifth of a second ahead of what passed. A card that is pulled answers
/// some reads at once before it is gone, and each counts as if it had been waited for: by the source's own clock all
/// cameras would be seconds ahead of themselves.
///
/// Thread-safe.
class CardClock {
 public:
  /// Has `source`, which is in NULL, give its pipeline this clock. Empty, and it is left as it is, when it is no
  /// GstAudioBaseSrc. The clock looks at the source only while that lives.
  static std::shared_ptr<CardClock> Guard(GstElement* source);

  explicit CardClock(GstAudioBaseSrc* source) : m_source(source) {}

  /// Of the card, from its opening on. GST_CLOCK_TIME_NONE while it is closed.
  GstClockTime Get();
  /// The card's samples make no sense, until it is opened anew.
  [[nodiscard]] bool IsCardGone();

  CardClock(const CardClock&) = delete;
  CardClock& operator=(const CardClock&) = delete;

 private:
  void Begin(GstAudioRingBuffer* ring);
  GstClockTime GetSteady();
  GstClockTime Check(GstAudioRingBuffer* ring);

  GstAudioBaseSrc* const m_source;
  std::atomic<GstAudioRingBuffer*> m_ring{nullptr};
  std::atomic<bool> m_isGone{false};
  /// Before that many of the card's nanoseconds nothing is compared.
  std::atomic<GstClockTime> m_checkAt{0};
  /// Guards what follows: when the card's samples were last found to be right, by both clocks.
  std::mutex m_mutex;
  GstUtil::GstRef<GstAudioRingBuffer> m_kept;
  bool m_isKnown = false;
  GstClockTime m_card = 0;
  GstClockTime m_steady = 0;
};

}  // namespace Tavi::Audio
