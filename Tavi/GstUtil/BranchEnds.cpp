// The two ends of a source's branch.
#include "Tavi/GstUtil/BranchEnds.h"

namespace Tavi::GstUtil {

GstElement* BranchEnds::MakePipeline(const std::string& name) {
  m_ownPipeline = GstRef<GstElement>::Sink(gst_pipeline_new(name.c_str()));
  return m_ownPipeline.Get();
}

void BranchEnds::ConnectSource(GstElement* source, GstPadProbeCallback probe, void* element) {
  m_sourcePad = GstRef<GstPad>::Adopt(gst_element_get_static_pad(source, "src"));
  m_probe = gst_pad_add_probe(m_sourcePad.Get(), GST_PAD_PROBE_TYPE_BUFFER, probe, element, nullptr);
}

void BranchEnds::ConnectSink(GstElement* sink, GstFlowReturn (*newSample)(GstAppSink*, void*), void* element) {
  m_sinks.push_back(GstRef<GstElement>::Share(sink));
  DeliverAtOnce(sink);
  SetSampleCallback(sink, newSample, element);
}

void BranchEnds::Detach() {
  SetRunning(false);
  if (m_ownPipeline) gst_element_set_state(m_ownPipeline.Get(), GST_STATE_NULL);
  if (m_probe != 0) gst_pad_remove_probe(m_sourcePad.Get(), m_probe);
  m_probe = 0;
  for (const auto& sink : m_sinks) ClearSampleCallback(sink);
}

}  // namespace Tavi::GstUtil
