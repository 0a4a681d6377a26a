// Runs a pipeline under test and looks at its buffers on the thread that pushes them.
#pragma once

#include <gst/gst.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace SoftImx::Test {

/// A pipeline from a description; set to NULL and released with the object.
class GstRun {
 public:
  using Look = std::function<GstPadProbeReturn(GstBuffer*)>;

  explicit GstRun(const std::string& description);
  ~GstRun();

  /// The element of that name, borrowed.
  [[nodiscard]] GstElement* Get(const char* name) const;
  /// Calls `look` on the streaming thread with each buffer that leaves `element`, all calls of a program one at a time.
  /// What it writes may be read by Wait's condition, and freely after Stop.
  void OnBuffer(const char* element, Look look);
  GstStateChangeReturn Play() { return gst_element_set_state(m_pipeline, GST_STATE_PLAYING); }
  void Stop();
  /// Waits until `condition` holds, at most 10 s; looked at after each buffer.
  [[nodiscard]] bool Wait(const std::function<bool()>& condition) const;
  /// The text of the next ERROR message, empty when none comes within `limit`.
  [[nodiscard]] std::string Error(std::chrono::milliseconds limit) const;
  [[nodiscard]] GstElement* Pipeline() const { return m_pipeline; }

  GstRun(const GstRun&) = delete;
  GstRun& operator=(const GstRun&) = delete;

 private:
  GstElement* m_pipeline;
};

/// A frame's picture, copied out.
struct Picture {
  int width = 0;
  int height = 0;
  std::vector<unsigned char> planes[3];
  [[nodiscard]] int At(int plane, int x, int y) const;
  [[nodiscard]] double MeanLuma() const;
};

/// The I420 picture of `buffer` with the size that `element`'s source pad has agreed on.
[[nodiscard]] Picture ReadPicture(GstElement* element, GstBuffer* buffer);

/// The caps on `element`'s source pad as text.
[[nodiscard]] std::string CapsOf(GstElement* element);

}  // namespace SoftImx::Test
