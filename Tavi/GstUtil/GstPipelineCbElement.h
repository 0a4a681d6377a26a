// The ring entry that all sources share: one media buffer and its source's name.
#pragma once

#include <gst/gst.h>

#include <chrono>
#include <cstdint>
#include <string>

#include "Kbase/Pipeline/IPipelineCbElement.h"

namespace Tavi::GstUtil {

/// Owns one reference to its buffer. Time stamp and key-frame state live in the buffer (PTS, delta-unit flag).
/// Immutable once it is in a ring: whoever needs another time stamp copies the buffer (the pixels stay shared).
class GstPipelineCbElement : public Kbase::Pipeline::IPipelineCbElement {
 public:
  /// Takes over the caller's reference to `ownedBuffer`, which may be null.
  GstPipelineCbElement(std::uint64_t id, GstBuffer* ownedBuffer, std::string sourceName);
  ~GstPipelineCbElement() override;

  /// When the entry was made, to some 4 ms.
  [[nodiscard]] std::chrono::steady_clock::time_point GetMadeAt() const {
    return std::chrono::steady_clock::time_point(m_madeAt);
  }
  /// How long ago that was.
  [[nodiscard]] std::chrono::milliseconds GetAge() const;
  /// False for a buffer that cannot be decoded on its own, and for an entry without a buffer.
  [[nodiscard]] bool IsKeyFrame() const override;

  GstBuffer* const buffer;
  const std::string name;

 private:
  const std::chrono::nanoseconds m_madeAt;
};

/// True when `buffer` is there and still referenced.
[[nodiscard]] bool IsUsable(const GstBuffer* buffer);

}  // namespace Tavi::GstUtil
