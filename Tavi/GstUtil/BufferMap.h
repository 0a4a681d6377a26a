// A ring entry's bytes, held and mapped for reading.
#pragma once

#include <gst/gst.h>

#include <cstddef>
#include <cstdint>
#include <span>

#include "Tavi/GstUtil/GstPipelineCbElement.h"
#include "Tavi/GstUtil/GstRef.h"

namespace Tavi::GstUtil {

/// Holds a reference to the entry's buffer and a mapping of it while it lives.
class BufferMap {
 public:
  explicit BufferMap(const GstPipelineCbElement* entry) {
    if (entry == nullptr || !IsUsable(entry->buffer)) return;
    m_hold = GstRef<GstBuffer>::Share(entry->buffer);
    m_mapped = gst_buffer_map(m_hold.Get(), &m_map, GST_MAP_READ) == TRUE;
  }
  ~BufferMap() {
    if (m_mapped) gst_buffer_unmap(m_hold.Get(), &m_map);
  }
  BufferMap(const BufferMap&) = delete;
  BufferMap& operator=(const BufferMap&) = delete;

  /// False for no entry, no buffer, or one that cannot be mapped.
  [[nodiscard]] bool IsMapped() const { return m_mapped; }
  /// Empty when nothing is mapped.
  [[nodiscard]] std::span<const std::uint8_t> GetBytes() const {
    return m_mapped ? std::span<const std::uint8_t>(m_map.data, m_map.size) : std::span<const std::uint8_t>();
  }
  /// The bytes as the record that a sensor wrapped; null when they are fewer than the record has.
  template <class Record>
  [[nodiscard]] const Record* GetRecord() const {
    return m_mapped && m_map.data != nullptr && m_map.size >= sizeof(Record)
               ? reinterpret_cast<const Record*>(m_map.data)
               : nullptr;
  }

 private:
  GstRef<GstBuffer> m_hold;
  GstMapInfo m_map{};
  bool m_mapped = false;
};

}  // namespace Tavi::GstUtil
