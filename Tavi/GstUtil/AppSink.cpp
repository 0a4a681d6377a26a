// What the branches' appsinks have in common.
#include "Tavi/GstUtil/AppSink.h"

namespace Tavi::GstUtil {

GstRef<GstSample> PullSample(GstAppSink* sink) {
  auto sample = GstRef<GstSample>::Adopt(gst_app_sink_pull_sample(sink));
  if (sample && gst_sample_get_buffer(sample.Get()) == nullptr) sample.Reset();
  return sample;
}

GstBuffer* ShareBuffer(GstSample* sample) {
  return gst_buffer_ref(gst_sample_get_buffer(sample));
}

void DeliverAtOnce(GstElement* sink) {
  g_object_set(sink, "sync", FALSE, "async", FALSE, "enable-last-sample", FALSE, nullptr);
}

void SetSampleCallback(GstElement* sink, GstFlowReturn (*newSample)(GstAppSink*, void*), void* element) {
  GstAppSinkCallbacks callbacks{};
  callbacks.new_sample = newSample;
  gst_app_sink_set_emit_signals(GST_APP_SINK(sink), FALSE);
  gst_app_sink_set_callbacks(GST_APP_SINK(sink), &callbacks, element, nullptr);
}

void ClearSampleCallback(const GstRef<GstElement>& sink) {
  if (!sink) return;
  SetSampleCallback(sink.Get(), nullptr, nullptr);
  // A callback runs with the stream lock of the sink's pad held.
  const auto pad = GstRef<GstPad>::Adopt(gst_element_get_static_pad(sink.Get(), "sink"));
  GST_PAD_STREAM_LOCK(pad.Get());
  GST_PAD_STREAM_UNLOCK(pad.Get());
}

}  // namespace Tavi::GstUtil
