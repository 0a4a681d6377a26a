// The time stamps of what a codec makes, as its frames have them.
#include "SoftImx/CodecTimes.h"

#include "SoftImx/Handover.h"

namespace SoftImx {
namespace {

/// No frame is reordered, so a frame is decoded when it is shown.
SOFTIMX_FILLS_HEADER void MoveBack(GstBuffer* buffer, GstClockTime shift) {
  if (GST_BUFFER_PTS_IS_VALID(buffer)) GST_BUFFER_PTS(buffer) -= shift;
  GST_BUFFER_DTS(buffer) = GST_BUFFER_PTS(buffer);
}

}  // namespace

void CodecTimes::Restore(GstPad* pad, GstPadProbeInfo* info) {
  if ((GST_PAD_PROBE_INFO_TYPE(info) & GST_PAD_PROBE_TYPE_BUFFER) != 0) {
    GstBuffer* buffer = gst_buffer_make_writable(GST_PAD_PROBE_INFO_BUFFER(info));
    MoveBack(buffer, m_shift);
    GST_PAD_PROBE_INFO_DATA(info) = buffer;
  } else if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == GST_EVENT_SEGMENT) {
    GST_PAD_PROBE_INFO_DATA(info) = RestoreSegment(pad, GST_PAD_PROBE_INFO_EVENT(info));
  }
}

GstEvent* CodecTimes::RestoreSegment(GstPad* pad, GstEvent* event) {
  GstElement* codec = gst_pad_get_parent_element(pad);
  GstPad* sink = gst_element_get_static_pad(codec, "sink");
  GstEvent* original = gst_pad_get_sticky_event(sink, GST_EVENT_SEGMENT, 0);
  gst_object_unref(sink);
  gst_object_unref(codec);
  if (original == nullptr) {
    m_shift = 0;
    return event;
  }
  const GstSegment* moved = nullptr;
  const GstSegment* wanted = nullptr;
  gst_event_parse_segment(event, &moved);
  gst_event_parse_segment(original, &wanted);
  m_shift = moved->start - wanted->start;
  gst_event_unref(event);
  return original;
}

}  // namespace SoftImx
