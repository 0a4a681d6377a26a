// Runs a pipeline under test and looks at its buffers on the thread that pushes them.
#pragma once

#include <gst/video/video.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "Support/Fixtures.h"
#include "Tavi/GstUtil/GstRef.h"

namespace SoftImx::Test {

using Tavi::GstUtil::GstRef;

/// A frame's picture, mapped as long as a copy of the pointer lives; null when it could not be.
using Picture = std::shared_ptr<GstVideoFrame>;

/// Maps `buffer` in the format that `pad` has agreed on.
inline Picture MapPicture(GstPad* pad, GstBuffer* buffer, GstMapFlags flags = GST_MAP_READ) {
  const auto caps = GstRef<GstCaps>::Adopt(gst_pad_get_current_caps(pad));
  GstVideoInfo info;
  gst_video_info_from_caps(&info, caps.Get());
  auto frame = std::make_unique<GstVideoFrame>();
  if (gst_video_frame_map(frame.get(), &info, buffer, flags) == FALSE) return nullptr;
  return {frame.release(), [](GstVideoFrame* mapped) {
            gst_video_frame_unmap(mapped);
            delete mapped;
          }};
}

/// One sample of component 0 (luma), 1 or 2.
inline guint8& At(const Picture& picture, guint component, int x, int y) {
  auto* data = static_cast<guint8*>(GST_VIDEO_FRAME_COMP_DATA(picture, component));
  const int step = GST_VIDEO_FRAME_COMP_PSTRIDE(picture, component);
  return data[y * GST_VIDEO_FRAME_COMP_STRIDE(picture, component) + x * step];
}

/// A pipeline from a description; set to NULL and released with the object.
class GstRun {
 public:
  using Look = std::function<void(GstPad*, GstBuffer*)>;

  explicit GstRun(const std::string& description) {
    gst_init(nullptr, nullptr);
    m_pipeline = GstRef<GstElement>::Sink(gst_parse_launch(description.c_str(), nullptr));
  }
  ~GstRun() { Stop(); }

  /// The element of that name, borrowed.
  [[nodiscard]] GstElement* Get(const char* name) const {
    return GstRef<GstElement>::Adopt(gst_bin_get_by_name(GST_BIN(m_pipeline.Get()), name)).Get();
  }
  /// Calls `look` on the streaming thread with each buffer that leaves `element`, all calls of a program one at a time.
  /// What it writes may be read by PlayUntil's condition, and freely after Stop.
  void OnBuffer(const char* element, const Look& look) {
    const auto pad = GstRef<GstPad>::Adopt(gst_element_get_static_pad(Get(element), "src"));
    gst_pad_add_probe(pad.Get(), GST_PAD_PROBE_TYPE_BUFFER, Probe, new Look(look),
                      [](gpointer owned) { delete static_cast<Look*>(owned); });
  }
  GstStateChangeReturn Play() { return gst_element_set_state(m_pipeline.Get(), GST_STATE_PLAYING); }
  /// Goes on until `condition` holds, at most 10 s.
  [[nodiscard]] bool PlayUntil(const std::function<bool()>& condition) {
    Play();
    return Tavi::Testing::WaitUntil([&] {
      const std::lock_guard lock(s_mutex);
      return condition();
    });
  }
  void Stop() {
    gst_element_set_state(m_pipeline.Get(), GST_STATE_NULL);
    const std::lock_guard lock(s_mutex);  // Orders what the streaming threads wrote before what the test reads.
  }
  /// The text of the next ERROR message, empty when none comes within 5 s.
  [[nodiscard]] std::string Error() const {
    const auto bus = GstRef<GstBus>::Adopt(gst_element_get_bus(m_pipeline.Get()));
    g_autoptr(GstMessage) message = gst_bus_timed_pop_filtered(bus.Get(), 5 * GST_SECOND, GST_MESSAGE_ERROR);
    if (message == nullptr) return {};
    g_autoptr(GError) error = nullptr;
    gst_message_parse_error(message, &error, nullptr);
    return error->message;
  }
  /// Goes on until the stream has ended, at most 5 s.
  void WaitForEnd() const {
    const auto bus = GstRef<GstBus>::Adopt(gst_element_get_bus(m_pipeline.Get()));
    GstMessage* end = gst_bus_timed_pop_filtered(bus.Get(), 5 * GST_SECOND, GST_MESSAGE_EOS);
    gst_clear_message(&end);
  }
  /// The texts of all INFO messages so far, a line each.
  [[nodiscard]] std::string Infos() const {
    const auto bus = GstRef<GstBus>::Adopt(gst_element_get_bus(m_pipeline.Get()));
    std::string texts;
    while (true) {
      g_autoptr(GstMessage) message = gst_bus_pop_filtered(bus.Get(), GST_MESSAGE_INFO);
      if (message == nullptr) return texts;
      g_autoptr(GError) info = nullptr;
      gst_message_parse_info(message, &info, nullptr);
      texts += std::string(info->message) + "\n";
    }
  }

 private:
  static GstPadProbeReturn Probe(GstPad* pad, GstPadProbeInfo* info, gpointer look) {
    const std::lock_guard lock(s_mutex);
    (*static_cast<Look*>(look))(pad, GST_PAD_PROBE_INFO_BUFFER(info));
    return GST_PAD_PROBE_OK;
  }

  // One for the program: pipelines pass threads on to each other by GLib's locks, which ThreadSanitizer cannot see.
  static inline std::mutex s_mutex;
  GstRef<GstElement> m_pipeline;
};

}  // namespace SoftImx::Test
