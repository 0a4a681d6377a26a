// Media buffers and ring entries for tests.
#pragma once

#include <gst/gst.h>

#include <memory>
#include <string>

#include "Support/Fixtures.h"
#include "Support/TestRing.h"
#include "Tavi/GstUtil/GstPipelineCbElement.h"

namespace Tavi::Testing {

/// A buffer of `text` with a time stamp; `key` false marks it as a delta unit. Where a streaming thread makes it,
/// whoever gets it comes behind by GLib's locks, which ThreadSanitizer does not see.
__attribute__((no_sanitize("thread"))) inline GstBuffer* MakeBuffer(const std::string& text, GstClockTime pts,
                                                                    bool key = true) {
  GstBuffer* buffer = gst_buffer_new_allocate(nullptr, text.size(), nullptr);
  gst_buffer_fill(buffer, 0, text.data(), text.size());
  GST_BUFFER_PTS(buffer) = pts;
  if (!key) GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
  return buffer;
}

/// What AddMedia puts into the entry `id`.
inline std::string EntryText(std::uint64_t id) {
  return std::string("<").append(std::to_string(id)).append(">");
}

/// Appends one media entry as a producer does.
inline void AddMedia(TestRing& ring, GstClockTime pts, bool key = true) {
  const std::uint64_t id = ring.GetCurrentFrameId() + 1;
  ring.AddNext(std::make_shared<GstUtil::GstPipelineCbElement>(id, MakeBuffer(EntryText(id), pts, key), "test"));
}

/// For tests with media buffers.
class MediaTest : public TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    gst_init(nullptr, nullptr);
  }
};

}  // namespace Tavi::Testing
