// Media buffers of a sensor's records.
#pragma once

#include <gst/gst.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Tavi::GstUtil {

/// Wraps the records of one sensor, without copying them, into buffers whose time stamps advance by one second over the
/// rate. Wrap belongs to the sensor's thread, Restart to the one that starts it.
class RecordWrapper {
 public:
  /// `flags` are those of the buffers' memory; `destroy` frees a record.
  RecordWrapper(GstMemoryFlags flags, std::int32_t rate, GDestroyNotify destroy)
      : m_flags(flags), m_rate(rate), m_destroy(destroy) {}

  /// Time stamps begin at 0 again.
  void Restart() { m_timestamp = 0; }
  /// Records a second, as configured.
  [[nodiscard]] std::int32_t GetRate() const { return m_rate; }

  /// The record passes to the buffer, which is the caller's. Null for a null record, or when there is no buffer to be
  /// had; the record is then freed.
  template <class Record>
  [[nodiscard]] GstBuffer* Wrap(Record* record) {
    return Wrap(record, sizeof(Record));
  }

 private:
  [[nodiscard]] GstBuffer* Wrap(void* record, std::size_t size);

  const GstMemoryFlags m_flags;
  const std::int32_t m_rate;
  const GDestroyNotify m_destroy;
  /// Presentation time of the next record in nanoseconds.
  std::atomic<std::uint64_t> m_timestamp{0};
};

}  // namespace Tavi::GstUtil
