// The records of one camera and the sound, into one media pipeline.
#include "Fleet/Web/Rtsp/CameraFeed.h"

#include <atomic>
#include <utility>

namespace Tavi::Web {
namespace {

using GstUtil::GstRef;
using UnitPtr = std::shared_ptr<const LiveUnit>;

/// What a buffer holds. Whichever thread lets go of it comes behind the one that made it by GLib's locks, which
/// ThreadSanitizer cannot see; this flag it can.
struct Held {
  UnitPtr unit;
  std::atomic<bool> isHandedOver{false};
};

void LetGo(gpointer pointer) {
  auto* const held = static_cast<Held*>(pointer);
  if (held->isHandedOver.load(std::memory_order_acquire)) delete held;
}

/// The unit's own memory; the buffer holds it.
GstBuffer* Wrap(const UnitPtr& unit, GstClockTime time) {
  auto* const held = new Held{unit};
  held->isHandedOver.store(true, std::memory_order_release);
  // Read-only: GStreamer only has no const for it.
  auto* const bytes = const_cast<std::uint8_t*>(unit->bytes.data());
  const gsize size = unit->bytes.size();
  GstBuffer* buffer = gst_buffer_new_wrapped_full(GST_MEMORY_FLAG_READONLY, bytes, size, 0, size, held, LetGo);
  GST_BUFFER_PTS(buffer) = time;
  if (!unit->isKeyFrame) GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
  return buffer;
}

}  // namespace

bool CameraFeed::WaitForPicture(std::chrono::milliseconds patience) {
  std::unique_lock lock(m_mutex);
  return m_changed.wait_for(lock, patience, [this] { return m_hasPicture; });
}

bool CameraFeed::WaitForSound(std::chrono::milliseconds patience) {
  std::unique_lock lock(m_mutex);
  return m_changed.wait_for(lock, patience, [this] { return m_hasSound; });
}

void CameraFeed::Attach(GstRef<GstAppSrc> video, GstRef<GstAppSrc> sound) {
  const std::lock_guard lock(m_mutex);
  m_video = std::move(video);
  m_sound = std::move(sound);
}

void CameraFeed::Take(const UnitPtr& unit) noexcept {
  const std::lock_guard lock(m_mutex);
  const bool isSound = unit->stream == LiveStream::Sound;
  if (!isSound && unit->stream != m_camera) return;
  bool& has = isSound ? m_hasSound : m_hasPicture;
  if (!has && unit->isKeyFrame) {
    has = true;
    m_changed.notify_all();
  }
  if (!m_video || (!m_offsetNs && !Begin(*unit))) return;
  Push(isSound ? m_sound.Get() : m_video.Get(), unit);
}

/// The first key frame that the running pipeline is given is now.
bool CameraFeed::Begin(const LiveUnit& unit) {
  if (unit.stream != m_camera || !unit.isKeyFrame) return false;
  const GstClockTime now = gst_element_get_current_running_time(GST_ELEMENT(m_video.Get()));
  if (!GST_CLOCK_TIME_IS_VALID(now)) return false;
  m_offsetNs = static_cast<std::int64_t>(now) - unit.timeNs;
  return true;
}

void CameraFeed::Push(GstAppSrc* target, const UnitPtr& unit) {
  const std::int64_t time = unit->timeNs + *m_offsetNs;
  if (target == nullptr || time < 0) return;
  const bool isFull = gst_app_src_get_current_level_bytes(target) > MostWaitingBytes;
  if (unit->stream == m_camera) {
    m_awaitsKey = (m_awaitsKey || isFull || unit->isAfterGap) && !(unit->isKeyFrame && !isFull);
    if (m_awaitsKey) return;
  } else if (isFull) {
    return;
  }
  // A pipeline that is being taken down refuses it; that is its end, and nothing to be told.
  gst_app_src_push_buffer(target, Wrap(unit, static_cast<GstClockTime>(time)));
}

}  // namespace Tavi::Web
