// The GStreamer branch of one camera.
#include "Tavi/Video/GstVideoPipelineElement.h"

#include <algorithm>
#include <chrono>
#include <string>

#include "Tavi/Video/CameraBranch.h"
#include "Tavi/Video/GstIpuFrame.h"
#include "Tavi/Video/VideoPipelineCbElement.h"

namespace Tavi::Video {

using GstUtil::GstRef;

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
  if (GstElement* pipeline = m_ends.MakePipeline(camera + "-pipeline")) Init(pipeline, config);
}

GstVideoPipelineElement::GstVideoPipelineElement(GstElement* pipeline, const VideoConfig& config) {
  if (pipeline != nullptr) Init(pipeline, config);
}

GstVideoPipelineElement::~GstVideoPipelineElement() = default;

void GstVideoPipelineElement::Init(GstElement* pipeline, const VideoConfig& config) {
  const CameraBranch branch = CameraBranch::Build(GST_BIN(pipeline), config);
  m_config = config;
  // A preview that is asked to be faster than its camera gets every frame.
  if (config.previewFps > 0) m_previewEvery = std::max(config.fps / config.previewFps, 1);
  if (branch.source == nullptr) return;
  m_branch.Keep(branch.elements);
  m_ends.ConnectSource(branch.source, RunningCallback, this);
  m_rawSink = GstRef<GstElement>::Share(branch.rawSink);
  GstUtil::DeliverAtOnce(branch.rawSink);
  KeepNewestOnly(branch.rawSink);
  m_ends.ConnectSink(branch.encodedSink, SetEncodedFrameCallback, this);
  if (branch.previewSink == nullptr) return;
  KeepNewestOnly(branch.previewSink);
  m_ends.ConnectQueue(branch.previewQueue, ThinPreviewCallback, this);
  m_ends.ConnectSink(branch.previewSink, SetPreviewFrameCallback, this);
}

void GstVideoPipelineElement::Detach() {
  m_ends.Detach();
  std::unique_lock lock(m_rawFrameMutex);
  m_pullEnded.wait(lock, [this] { return !m_pulling; });
}

GstPadProbeReturn GstVideoPipelineElement::RunningCallback(GstPad* /*pad*/, GstPadProbeInfo* /*info*/,
                                                           void* element) noexcept {
  return static_cast<const GstVideoPipelineElement*>(element)->m_ends.Pass();
}

GstFlowReturn GstVideoPipelineElement::SetEncodedFrameCallback(GstAppSink* sink, void* element) noexcept {
  auto* self = static_cast<GstVideoPipelineElement*>(element);
  return self->m_ends.Deliver(sink, [self](GstSample* sample) {
    self->m_setup.TakeCaps(gst_sample_get_caps(sample));
    self->SetEncodedFrame(GstUtil::ShareBuffer(sample));
  });
}

GstPadProbeReturn GstVideoPipelineElement::ThinPreviewCallback(GstPad* /*pad*/, GstPadProbeInfo* /*info*/,
                                                               void* element) noexcept {
  auto* self = static_cast<GstVideoPipelineElement*>(element);
  static_cast<void>(self->m_ends.IsRunning());
  if (self->m_previewEvery <= 0) return GST_PAD_PROBE_DROP;
  const std::int32_t number = self->m_previewPhase;
  self->m_previewPhase = number + 1 < self->m_previewEvery ? number + 1 : 0;
  return number == 0 ? GST_PAD_PROBE_OK : GST_PAD_PROBE_DROP;
}

GstFlowReturn GstVideoPipelineElement::SetPreviewFrameCallback(GstAppSink* sink, void* element) noexcept {
  auto* self = static_cast<GstVideoPipelineElement*>(element);
  return self->m_ends.Deliver(sink, [self](GstSample* sample) { self->SetPreviewFrame(GstUtil::ShareBuffer(sample)); });
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
  return sample ? GstUtil::ShareBuffer(sample.Get()) : nullptr;
}

GstIpuFrame* GstVideoPipelineElement::GetIpuFrame() {
  return GetIpuFrame([] { return false; });
}

GstIpuFrame* GstVideoPipelineElement::GetIpuFrame(const std::function<bool()>& giveUp) {
  const auto sample = PullRawSample(giveUp);
  return sample ? GstIpuFrame::Create(sample.Get(), {m_config.width, m_config.height}) : nullptr;
}

}  // namespace Tavi::Video
