// What an element has on its branch.
#include "Tavi/GstUtil/BranchEnds.h"

namespace Tavi::GstUtil {

GstElement* BranchEnds::MakePipeline(const std::string& name) {
  m_ownPipeline = GstRef<GstElement>::Sink(gst_pipeline_new(name.c_str()));
  return m_ownPipeline.Get();
}

void BranchEnds::AddProbe(GstElement* element, const char* pad, GstPadProbeCallback probe, void* user) {
  auto at = GstRef<GstPad>::Adopt(gst_element_get_static_pad(element, pad));
  const gulong id = gst_pad_add_probe(at.Get(), GST_PAD_PROBE_TYPE_BUFFER, probe, user, nullptr);
  m_probes.push_back({std::move(at), id});
}

void BranchEnds::ConnectSource(GstElement* source, GstPadProbeCallback probe, void* element) {
  AddProbe(source, "src", probe, element);
}

void BranchEnds::ConnectQueue(GstElement* queue, GstPadProbeCallback probe, void* element) {
  AddProbe(queue, "sink", probe, element);
}

void BranchEnds::ConnectSink(GstElement* sink, GstFlowReturn (*newSample)(GstAppSink*, void*), void* element) {
  m_sinks.push_back(GstRef<GstElement>::Share(sink));
  DeliverAtOnce(sink);
  SetSampleCallback(sink, newSample, element);
}

void BranchEnds::Detach() {
  SetRunning(false);
  if (m_ownPipeline) gst_element_set_state(m_ownPipeline.Get(), GST_STATE_NULL);
  for (const auto& probe : m_probes) gst_pad_remove_probe(probe.pad.Get(), probe.id);
  m_probes.clear();
  for (const auto& sink : m_sinks) ClearSampleCallback(sink);
}

}  // namespace Tavi::GstUtil
