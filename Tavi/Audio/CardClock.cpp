// The clock that a sound card makes, which cameras go by as well.
#include "Tavi/Audio/CardClock.h"

#include <algorithm>
#include <utility>

namespace Tavi::Audio {
namespace {

/// How often the card's samples are compared with the steady clock, in its own time: not for each frame of a camera.
constexpr GstClockTime CheckPeriod = 200 * GST_MSECOND;
/// What samples may be ahead: drivers hand them over by the period, GStreamer counts them by the segment.
constexpr GstClockTime MostAhead = 200 * GST_MSECOND;
/// By one in so many a card may be faster than the steady clock; crystals differ by one in ten thousand. A power of
/// two, for the unit divides 64 bits by calling a function.
constexpr GstClockTime FastestPart = 128;

/// GST_CLOCK_TIME_NONE for one that has no format yet.
GstClockTime ToTime(GstAudioRingBuffer* ring, guint64 samples) {
  gint64 time = -1;
  const gboolean isKnown =
      gst_audio_ring_buffer_convert(ring, GST_FORMAT_DEFAULT, static_cast<gint64>(samples), GST_FORMAT_TIME, &time);
  return isKnown == TRUE ? static_cast<GstClockTime>(time) : GST_CLOCK_TIME_NONE;
}

/// With those that the card still holds, for which it is asked.
GstClockTime CountSamples(GstAudioRingBuffer* ring) {
  return ToTime(ring, gst_audio_ring_buffer_samples_done(ring) + gst_audio_ring_buffer_delay(ring));
}

bool HasFailed(GstAudioRingBuffer* ring) {
  return g_atomic_int_get(&ring->state) == GST_AUDIO_RING_BUFFER_STATE_ERROR;
}

using Shared = std::shared_ptr<CardClock>;

GstClockTime GetTime(GstClock* /*clock*/, gpointer shared) noexcept {
  return (*static_cast<Shared*>(shared))->Get();
}

}  // namespace

std::shared_ptr<CardClock> CardClock::Guard(GstElement* source) {
  if (!GST_IS_AUDIO_BASE_SRC(source)) return nullptr;
  GstAudioBaseSrc* base = GST_AUDIO_BASE_SRC(source);
  auto guard = std::make_shared<CardClock>(base);
  auto shared = std::make_unique<Shared>(guard);
  GstClock* clock = gst_audio_clock_new("TaviCardClock", GetTime, shared.release(),
                                        [](gpointer user) { delete static_cast<Shared*>(user); });
  // The source makes its clock's function harmless when it lets go of it.
  gst_object_unref(std::exchange(base->clock, clock));
  return guard;
}

GstClockTime CardClock::Get() {
  GstAudioRingBuffer* ring = m_source->ringbuffer;
  // A source that is closed has none, and the next one counts from 0 again.
  if (ring != nullptr && ring != m_ring) Begin(ring);
  if (m_isGone) return GetSteady();
  if (ring == nullptr) return GST_CLOCK_TIME_NONE;
  const GstClockTime card = CountSamples(ring);
  if (!GST_CLOCK_TIME_IS_VALID(card)) return card;
  return HasFailed(ring) || card >= m_checkAt ? Check(ring) : card;
}

bool CardClock::IsCardGone() {
  GstAudioRingBuffer* ring = m_source->ringbuffer;
  // For each period of sound: what has been read tells whether a look is due, and the card itself is not asked.
  if (ring == nullptr || ring != m_ring || HasFailed(ring) ||
      ToTime(ring, gst_audio_ring_buffer_samples_done(ring)) >= m_checkAt) {
    Get();
  }
  return m_isGone;
}

void CardClock::Begin(GstAudioRingBuffer* ring) {
  const std::lock_guard lock(m_mutex);
  // Kept, so that no other one gets its address.
  m_kept = GstUtil::GstRef<GstAudioRingBuffer>::Share(ring);
  m_ring = ring;
  m_isGone = m_isKnown = false;
  m_checkAt = 0;
}

GstClockTime CardClock::GetSteady() {
  const std::lock_guard lock(m_mutex);
  return m_card + (gst_util_get_timestamp() - m_steady);
}

/// The steady clock is read before the samples are counted, too, so that a thread that stands still between the two
/// makes more time of them than passed, never less.
GstClockTime CardClock::Check(GstAudioRingBuffer* ring) {
  const GstClockTime before = gst_util_get_timestamp();
  const GstClockTime card = CountSamples(ring);
  if (!GST_CLOCK_TIME_IS_VALID(card)) return card;
  const std::lock_guard lock(m_mutex);
  const GstClockTime now = gst_util_get_timestamp();
  if (m_isKnown && (HasFailed(ring) || card > m_card + (now - m_steady) + MostAhead)) {
    m_isGone = true;
    return m_card + (now - m_steady);
  }
  if (!m_isKnown || card >= m_card) {
    const GstClockTime passed = before - m_steady;
    m_card = m_isKnown ? std::min(card, m_card + passed + passed / FastestPart) : card;
    m_steady = before;
    m_isKnown = true;
    m_checkAt = card + CheckPeriod;
  }
  return card;
}

}  // namespace Tavi::Audio
