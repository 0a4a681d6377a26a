// The GStreamer branch of one camera.
#include "Tavi/Video/GstVideoPipelineElement.h"

#include <algorithm>
#include <chrono>
#include <string>

#include "Tavi/GstUtil/AppSink.h"
#include "Tavi/Video/CameraBranch.h"
#include "Tavi/Video/GstIpuFrame.h"
#include "Tavi/Video/VideoPipelineCbElement.h"

namespace Tavi::Video {

using GstUtil::ClearSampleCallback;
using GstUtil::GstRef;
using GstUtil::PullBuffer;
using GstUtil::SetSampleCallback;

namespace {

/// How often one who waits for a raw frame is asked whether to go on.
constexpr std::chrono::milliseconds PullSlice{50};

/// The sink's next sample. Null when the sink has stopped, its stream has ended, or `giveUp` says so.
GstRef<GstSample> PullUnless(const std::function<bool()>& giveUp, GstAppSink* sink) {
  constexpr GstClockTime SliceNs = std::chrono::nanoseconds(PullSlice).count();
  while (!giveUp()) {
    auto sample = GstRef<GstSample>::Adopt(gst_app_sink_try_pull_sample(sink, SliceNs));
    if (sample && gst_sample_get_buffer(sample.Get()) != nullptr) return sample;
    // True also for a sink that has stopped.
    if (gst_app_sink_is_eos(sink)) return {};
  }
  return {};
}

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
  std::unique_lock lock(m_rawFrameMutex);
  m_pullEnded.wait(lock, [this] { return !m_pulling; });
}

GstPadProbeReturn GstVideoPipelineElement::RunningCallback(GstPad* /*pad*/, GstPadProbeInfo* /*info*/, void* element) {
  const auto* self = static_cast<const GstVideoPipelineElement*>(element);
  return self->m_running.load(std::memory_order_acquire) ? GST_PAD_PROBE_OK : GST_PAD_PROBE_DROP;
}

GstFlowReturn GstVideoPipelineElement::SetEncodedFrameCallback(GstAppSink* sink, void* element) {
  auto* self = static_cast<GstVideoPipelineElement*>(element);
  (void)self->m_running.load(std::memory_order_acquire);
  const auto sample = GstRef<GstSample>::Adopt(gst_app_sink_pull_sample(sink));
  GstBuffer* buffer = sample ? gst_sample_get_buffer(sample.Get()) : nullptr;
  if (buffer == nullptr) return GST_FLOW_OK;
  self->m_setup.TakeCaps(gst_sample_get_caps(sample.Get()));
  self->SetEncodedFrame(gst_buffer_ref(buffer));
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

bool GstVideoPipelineElement::BeginPull() {
  std::unique_lock lock(m_rawFrameMutex);
  if (!m_pullEnded.wait_for(lock, PullSlice, [this] { return !m_pulling; })) return false;
  m_pulling = true;
  return true;
}

void GstVideoPipelineElement::EndPull() {
  // Notified under the lock: once it is released the element may be gone.
  const std::lock_guard lock(m_rawFrameMutex);
  m_pulling = false;
  m_pullEnded.notify_all();
}

GstRef<GstSample> GstVideoPipelineElement::PullRawSample(const std::function<bool()>& giveUp) {
  if (!m_rawSink) return {};
  // One at a time: a sink that stops wakes only one who waits in it.
  while (!BeginPull()) {
    if (giveUp()) return {};
  }
  auto sample = PullUnless(giveUp, GST_APP_SINK(m_rawSink.Get()));
  EndPull();
  return sample;
}

GstBuffer* GstVideoPipelineElement::GetRawFrame() {
  return GetRawFrame([] { return false; });
}

GstBuffer* GstVideoPipelineElement::GetRawFrame(const std::function<bool()>& giveUp) {
  const auto sample = PullRawSample(giveUp);
  return sample ? gst_buffer_ref(gst_sample_get_buffer(sample.Get())) : nullptr;
}

GstIpuFrame* GstVideoPipelineElement::GetIpuFrame() {
  return GetIpuFrame([] { return false; });
}

GstIpuFrame* GstVideoPipelineElement::GetIpuFrame(const std::function<bool()>& giveUp) {
  const auto sample = PullRawSample(giveUp);
  return sample ? GstIpuFrame::Create(sample.Get(), {m_config.width, m_config.height}) : nullptr;
}

}  // namespace Tavi::Video
