// How the kernel schedules a pipeline's threads.
#include "Tavi/GstUtil/StreamThreads.h"

#include <sched.h>

#include "Tavi/GstUtil/GstRef.h"

namespace Tavi::GstUtil {
namespace {

/// Changes this thread's policy if it is the one before.
void ChangePolicy(int before, int after) {
  const sched_param param{};
  if (sched_getscheduler(0) == before) sched_setscheduler(0, after, &param);
}

/// On the thread that begins or ends; GStreamer gives it to others afterwards.
GstBusSyncReply NoteThread(GstBus* /*bus*/, GstMessage* message, gpointer /*data*/) noexcept {
  if (GST_MESSAGE_TYPE(message) != GST_MESSAGE_STREAM_STATUS) return GST_BUS_PASS;
  GstStreamStatusType type = GST_STREAM_STATUS_TYPE_CREATE;
  GstElement* owner = nullptr;
  gst_message_parse_stream_status(message, &type, &owner);
  if (GST_OBJECT_FLAG_IS_SET(owner, GST_ELEMENT_FLAG_SOURCE)) return GST_BUS_PASS;
  if (type == GST_STREAM_STATUS_TYPE_ENTER) ChangePolicy(SCHED_OTHER, SCHED_BATCH);
  if (type == GST_STREAM_STATUS_TYPE_LEAVE) ChangePolicy(SCHED_BATCH, SCHED_OTHER);
  return GST_BUS_PASS;
}

}  // namespace

void LetWakersFinish(GstElement* pipeline) {
  const auto bus = GstRef<GstBus>::Adopt(gst_element_get_bus(pipeline));
  gst_bus_set_sync_handler(bus.Get(), NoteThread, nullptr, nullptr);
}

}  // namespace Tavi::GstUtil
