// Runs a pipeline under test and looks at its buffers on the thread that pushes them.
#include "SoftImx/GstRun.h"

#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <memory>
#include <mutex>

namespace SoftImx::Test {
namespace {

// One for the program: GStreamer hands streaming threads from one pipeline to the next, and a lock made for each
// pipeline would have to reach them by GLib's hand-over, which ThreadSanitizer does not see.
std::mutex lookMutex;
std::condition_variable looked;

struct GstEnvironment : testing::Environment {
  void SetUp() override { gst_init(nullptr, nullptr); }
};
[[maybe_unused]] const auto* environment = testing::AddGlobalTestEnvironment(new GstEnvironment);

GstPadProbeReturn Probe(GstPad*, GstPadProbeInfo* info, gpointer look) {
  const std::lock_guard lock(lookMutex);
  const GstPadProbeReturn result = (*static_cast<GstRun::Look*>(look))(GST_PAD_PROBE_INFO_BUFFER(info));
  looked.notify_all();
  return result;
}

}  // namespace

GstRun::GstRun(const std::string& description) : m_pipeline(nullptr) {
  GError* error = nullptr;
  m_pipeline = gst_parse_launch(description.c_str(), &error);
  if (error != nullptr) ADD_FAILURE() << error->message;
  g_clear_error(&error);
}

GstRun::~GstRun() {
  Stop();
  gst_object_unref(m_pipeline);
}

GstElement* GstRun::Get(const char* name) const {
  GstElement* element = gst_bin_get_by_name(GST_BIN(m_pipeline), name);
  gst_object_unref(element);
  return element;
}

void GstRun::OnBuffer(const char* element, Look look) {
  GstPad* pad = gst_element_get_static_pad(Get(element), "src");
  const std::lock_guard lock(lookMutex);
  gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, Probe, new Look(std::move(look)),
                    [](gpointer owned) { delete static_cast<Look*>(owned); });
  gst_object_unref(pad);
}

void GstRun::Stop() {
  gst_element_set_state(m_pipeline, GST_STATE_NULL);
  const std::lock_guard lock(lookMutex);  // Orders what the streaming threads wrote before what the test reads.
}

bool GstRun::Wait(const std::function<bool()>& condition) const {
  std::unique_lock lock(lookMutex);
  return looked.wait_for(lock, std::chrono::seconds(10), condition);
}

std::string GstRun::Error(std::chrono::milliseconds limit) const {
  GstBus* bus = gst_element_get_bus(m_pipeline);
  GstMessage* message = gst_bus_timed_pop_filtered(bus, GstClockTime(limit.count()) * GST_MSECOND, GST_MESSAGE_ERROR);
  gst_object_unref(bus);
  if (message == nullptr) return {};
  GError* error = nullptr;
  gst_message_parse_error(message, &error, nullptr);
  std::string text = error->message;
  g_error_free(error);
  gst_message_unref(message);
  return text;
}

int Picture::At(int plane, int x, int y) const {
  const int stride = plane == 0 ? width : (width + 1) / 2;
  return planes[plane].at(static_cast<std::size_t>(y * stride + x));
}

double Picture::MeanLuma() const {
  // A sample of the pixels: under a sanitizer all of them would take longer than a frame lasts.
  constexpr std::size_t Step = 31;
  double sum = 0.0;
  std::size_t count = 0;
  for (std::size_t at = 0; at < planes[0].size(); at += Step, ++count) sum += planes[0][at];
  return sum / static_cast<double>(count);
}

Picture ReadPicture(GstElement* element, GstBuffer* buffer) {
  GstPad* pad = gst_element_get_static_pad(element, "src");
  GstCaps* caps = gst_pad_get_current_caps(pad);
  gst_object_unref(pad);
  GstVideoInfo info;
  GstVideoFrame frame;
  Picture picture;
  const bool isMapped =
      gst_video_info_from_caps(&info, caps) && gst_video_frame_map(&frame, &info, buffer, GST_MAP_READ);
  gst_caps_unref(caps);
  if (!isMapped) return picture;
  picture.width = GST_VIDEO_FRAME_WIDTH(&frame);
  picture.height = GST_VIDEO_FRAME_HEIGHT(&frame);
  for (guint plane = 0; plane < 3; ++plane) {
    const auto* data = static_cast<const unsigned char*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, plane));
    for (int y = 0; y < GST_VIDEO_FRAME_COMP_HEIGHT(&frame, plane); ++y) {
      const unsigned char* row = data + y * GST_VIDEO_FRAME_PLANE_STRIDE(&frame, plane);
      picture.planes[plane].insert(picture.planes[plane].end(), row, row + GST_VIDEO_FRAME_COMP_WIDTH(&frame, plane));
    }
  }
  gst_video_frame_unmap(&frame);
  return picture;
}

std::string CapsOf(GstElement* element) {
  GstPad* pad = gst_element_get_static_pad(element, "src");
  GstCaps* caps = gst_pad_get_current_caps(pad);
  gst_object_unref(pad);
  if (caps == nullptr) return {};
  gchar* text = gst_caps_to_string(caps);
  std::string result = text;
  g_free(text);
  gst_caps_unref(caps);
  return result;
}

}  // namespace SoftImx::Test
