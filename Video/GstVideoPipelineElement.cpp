// The GStreamer branch of one camera.
#include "Video/GstVideoPipelineElement.h"

#include <algorithm>
#include <string>

#include "Pipeline/AppSink.h"
#include "Video/CameraBranch.h"
#include "Video/GstIpuFrame.h"
#include "Video/VideoPipelineCbElement.h"

namespace Tavi::Video {

using GstUtil::ClearSampleCallback;
using GstUtil::GstRef;
using GstUtil::PullBuffer;
using GstUtil::SetSampleCallback;

namespace {

void KeepNewestOnly(GstElement* sink) {
  g_object_set(sink, "max-buffers", 1U, "drop", TRUE, "emit-signals", FALSE, nullptr);
}

}  // namespace

GstVideoPipelineElement::GstVideoPipelineElement(const VideoConfig& config) {
  const std::string camera = GetCameraName(config.cameraType);
  if (camera.empty()) return;
  m_ownPipeline = GstRef<GstElement>::Sink(gst_pipeline_new((camera + "-pipeline").c_str()));
  if (m_ownPipeline) Init(m_ownPipeline.Get(), config);
}

GstVideoPipelineElement::GstVideoPipelineElement(GstElement* pipeline, const VideoConfig& config) {
  if (pipeline != nullptr) Init(pipeline, config);
}

GstVideoPipelineElement::~GstVideoPipelineElement() = default;

void GstVideoPipelineElement::Init(GstElement* pipeline, const VideoConfig& config) {
  const CameraBranch branch = CameraBranch::Build(GST_BIN(pipeline), config);
  m_pipeline = pipeline;
  m_config = config;
  if (branch.source == nullptr) return;
  ConnectSource(branch.source);
  ConnectSinks(branch.rawSink, branch.encodedSink, branch.previewSink);
}

void GstVideoPipelineElement::ConnectSource(GstElement* source) {
  m_sourcePad = GstRef<GstPad>::Adopt(gst_element_get_static_pad(source, "src"));
  m_probe = gst_pad_add_probe(m_sourcePad.Get(), GST_PAD_PROBE_TYPE_BUFFER, RunningCallback, this, nullptr);
}

void GstVideoPipelineElement::ConnectSinks(GstElement* raw, GstElement* encoded, GstElement* preview) {
  m_rawSink = GstRef<GstElement>::Share(raw);
  KeepNewestOnly(raw);
  m_encodedSink = GstRef<GstElement>::Share(encoded);
  SetSampleCallback(encoded, SetEncodedFrameCallback, this);
  if (preview == nullptr) return;
  m_previewSink = GstRef<GstElement>::Share(preview);
  KeepNewestOnly(preview);
  SetSampleCallback(preview, SetPreviewFrameCallback, this);
}

void GstVideoPipelineElement::Detach() {
  SetRunning(false);
  if (m_ownPipeline) gst_element_set_state(m_ownPipeline.Get(), GST_STATE_NULL);
  if (m_probe != 0) gst_pad_remove_probe(m_sourcePad.Get(), m_probe);
  m_probe = 0;
  ClearSampleCallback(m_encodedSink);
  ClearSampleCallback(m_previewSink);
  const std::lock_guard pullsEnded(m_rawFrameMutex);
}

GstPadProbeReturn GstVideoPipelineElement::RunningCallback(GstPad* /*pad*/, GstPadProbeInfo* /*info*/, void* element) {
  const auto* self = static_cast<const GstVideoPipelineElement*>(element);
  return self->m_running.load(std::memory_order_acquire) ? GST_PAD_PROBE_OK : GST_PAD_PROBE_DROP;
}

GstFlowReturn GstVideoPipelineElement::SetEncodedFrameCallback(GstAppSink* sink, void* element) {
  auto* self = static_cast<GstVideoPipelineElement*>(element);
  (void)self->m_running.load(std::memory_order_acquire);
  if (GstBuffer* buffer = PullBuffer(sink)) self->SetEncodedFrame(buffer);
  return GST_FLOW_OK;
}

GstFlowReturn GstVideoPipelineElement::SetPreviewFrameCallback(GstAppSink* sink, void* element) {
  auto* self = static_cast<GstVideoPipelineElement*>(element);
  (void)self->m_running.load(std::memory_order_acquire);
  const std::uint64_t number = self->m_previewCounter++;
  const std::int32_t previewFps = self->m_config.previewFps;
  if (previewFps <= 0) return GST_FLOW_OK;
  // A preview that is asked to be faster than its camera gets every frame.
  const auto divisor = static_cast<std::uint64_t>(std::max(self->m_config.fps / previewFps, 1));
  if (number % divisor != 0) return GST_FLOW_OK;
  if (GstBuffer* buffer = PullBuffer(sink)) self->SetPreviewFrame(buffer);
  return GST_FLOW_OK;
}

GstBuffer* GstVideoPipelineElement::GetRawFrame() {
  const std::lock_guard lock(m_rawFrameMutex);
  return m_rawSink ? PullBuffer(GST_APP_SINK(m_rawSink.Get())) : nullptr;
}

GstIpuFrame* GstVideoPipelineElement::GetIpuFrame() {
  return GstIpuFrame::Create(GetRawFrame(), m_config.width, m_config.height);
}

}  // namespace Tavi::Video
