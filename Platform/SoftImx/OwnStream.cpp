// A camera's own H.264 in the place of what an encoder would make of its frames.
#include "SoftImx/OwnStream.h"

#include <initializer_list>

#include "SoftImx/AccessUnit.h"

namespace SoftImx {

void AnnounceOwnStream(GstPad* sink, GstPad* src) {
  GstCaps* raw = gst_pad_get_current_caps(sink);
  GstCaps* caps = gst_caps_from_string(OwnStreamCaps);
  if (raw != nullptr) {
    for (const char* field : {"width", "height", "framerate", "pixel-aspect-ratio"}) {
      const GValue* value = gst_structure_get_value(gst_caps_get_structure(raw, 0), field);
      if (value != nullptr) gst_caps_set_value(caps, field, value);
    }
    gst_caps_unref(raw);
  }
  for (const GstEventType type : {GST_EVENT_STREAM_START, GST_EVENT_CAPS, GST_EVENT_SEGMENT}) {
    GstEvent* event = type == GST_EVENT_CAPS ? gst_event_new_caps(caps) : gst_pad_get_sticky_event(sink, type, 0);
    if (event != nullptr) gst_pad_push_event(src, event);
  }
  gst_caps_unref(caps);
}

GstFlowReturn PushUnit(GstPad* src, GstBuffer* frame) {
  GstBuffer* unit = gst_buffer_copy(UnitOf(frame));
  GST_BUFFER_PTS(unit) = GST_BUFFER_PTS(frame);
  GST_BUFFER_DTS(unit) = GST_BUFFER_PTS(frame);
  GST_BUFFER_DURATION(unit) = GST_BUFFER_DURATION(frame);
  return gst_pad_push(src, unit);
}

}  // namespace SoftImx
