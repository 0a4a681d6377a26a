// Media buffers of a sensor's records.
#include "Tavi/GstUtil/RecordWrapper.h"

#include <algorithm>

namespace Tavi::GstUtil {
namespace {

/// The header's memory may be that of a buffer which another thread has given back to GLib: ThreadSanitizer does not
/// see how GLib orders the two.
__attribute__((no_sanitize("thread"))) void SetTimes(GstBuffer* buffer, GstClockTime pts, GstClockTime duration) {
  GST_BUFFER_PTS(buffer) = pts;
  GST_BUFFER_DURATION(buffer) = duration;
}

}  // namespace

GstBuffer* RecordWrapper::Wrap(void* record, std::size_t size) {
  if (record == nullptr) return nullptr;
  GstBuffer* buffer = gst_buffer_new_wrapped_full(m_flags, record, size, 0, size, record, m_destroy);
  if (buffer == nullptr) {
    m_destroy(record);
    return nullptr;
  }
  const GstClockTime duration = gst_util_uint64_scale_int(1, GST_SECOND, std::max(m_rate, 1));
  SetTimes(buffer, m_timestamp.fetch_add(duration), duration);
  return buffer;
}

}  // namespace Tavi::GstUtil
