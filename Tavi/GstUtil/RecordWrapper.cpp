// Media buffers of a sensor's records.
#include "Tavi/GstUtil/RecordWrapper.h"

#include <algorithm>

namespace Tavi::GstUtil {

GstBuffer* RecordWrapper::Wrap(void* record, std::size_t size) {
  if (record == nullptr) return nullptr;
  GstBuffer* buffer = gst_buffer_new_wrapped_full(m_flags, record, size, 0, size, record, m_destroy);
  if (buffer == nullptr) {
    m_destroy(record);
    return nullptr;
  }
  GST_BUFFER_DURATION(buffer) = gst_util_uint64_scale_int(1, GST_SECOND, std::max(m_rate, 1));
  GST_BUFFER_PTS(buffer) = m_timestamp.fetch_add(GST_BUFFER_DURATION(buffer));
  return buffer;
}

}  // namespace Tavi::GstUtil
