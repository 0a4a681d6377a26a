// The GStreamer branch of the microphone.
#include "Tavi/Audio/GstAudioPipelineElement.h"

#include <algorithm>
#include <string>

#include "KMedia/Alsa/AudioGain.h"
#include "Tavi/GstUtil/AppSink.h"
#include "Tavi/GstUtil/BranchParts.h"
#include "Tavi/GstUtil/Log.h"

namespace Tavi::Audio {

using GstUtil::GstRef;

namespace {

constexpr int UntouchedGain = -1;
constexpr float MicrosecondsPerSecond = 1e6F;

}  // namespace

GstAudioPipelineElement::GstAudioPipelineElement(const AudioConfig& config)
    : m_ownPipeline(GstRef<GstElement>::Sink(gst_pipeline_new("audio-pipeline"))) {
  if (m_ownPipeline) Init(m_ownPipeline.Get(), config);
}

GstAudioPipelineElement::GstAudioPipelineElement(GstElement* pipeline, const AudioConfig& config) {
  if (pipeline != nullptr) Init(pipeline, config);
}

GstAudioPipelineElement::~GstAudioPipelineElement() = default;

void GstAudioPipelineElement::Init(GstElement* pipeline, const AudioConfig& config) {
  if (config.gainLevel != UntouchedGain) KMedia::Alsa::ChangeAudioGainLevel(config.gainLevel);
  m_config = config;
  GstUtil::BranchParts parts;
  GstElement* source = parts.Make("alsasrc");
  GstElement* sink = parts.Make("appsink");
  GstElement* encoder = parts.Make("imxmp3audioenc");
  if (!parts.IsComplete()) return;
  // One MP3 frame at a time: the usual 10 ms would wake three threads that find nothing to encode.
  g_object_set(source, "latency-time", static_cast<gint64>(MicrosecondsPerSecond / std::max(config.frameRate, 1.0F)),
               nullptr);
  g_object_set(encoder, "high-quality-mode", TRUE, "bitrate", config.bitrate, nullptr);
  // Opened once, as the pipeline's start will do: a card that is not there would fail that start as a whole, cameras
  // included. Before the source is in the bin: an error on the pipeline's bus would end the watch over the cameras.
  const std::string problem = GstUtil::TryState(source, GST_STATE_READY);
  GstUtil::AddToBin(GST_BIN(pipeline), {source, encoder, sink});
  GstUtil::LinkChain({source, encoder, sink});
  Connect(source, sink);
  if (problem.empty()) return;
  Log::Error("the microphone cannot be opened (" + problem + "): there is no sound until the next start");
  for (GstElement* element : {source, encoder, sink}) gst_element_set_locked_state(element, TRUE);
}

void GstAudioPipelineElement::Connect(GstElement* source, GstElement* sink) {
  m_sourcePad = GstRef<GstPad>::Adopt(gst_element_get_static_pad(source, "src"));
  m_probe = gst_pad_add_probe(m_sourcePad.Get(), GST_PAD_PROBE_TYPE_BUFFER, RunningCallback, this, nullptr);
  m_sink = GstRef<GstElement>::Share(sink);
  GstUtil::SetSampleCallback(sink, SetEncodedFrameCallback, this);
}

void GstAudioPipelineElement::Detach() {
  SetRunning(false);
  if (m_ownPipeline) gst_element_set_state(m_ownPipeline.Get(), GST_STATE_NULL);
  if (m_probe != 0) gst_pad_remove_probe(m_sourcePad.Get(), m_probe);
  m_probe = 0;
  GstUtil::ClearSampleCallback(m_sink);
}

GstPadProbeReturn GstAudioPipelineElement::RunningCallback(GstPad* /*pad*/, GstPadProbeInfo* /*info*/, void* element) {
  const auto* self = static_cast<const GstAudioPipelineElement*>(element);
  return self->m_running.load(std::memory_order_acquire) ? GST_PAD_PROBE_OK : GST_PAD_PROBE_DROP;
}

GstFlowReturn GstAudioPipelineElement::SetEncodedFrameCallback(GstAppSink* sink, void* element) {
  auto* self = static_cast<GstAudioPipelineElement*>(element);
  (void)self->m_running.load(std::memory_order_acquire);
  if (GstBuffer* buffer = GstUtil::PullBuffer(sink)) self->SetFrame(buffer);
  return GST_FLOW_OK;
}

}  // namespace Tavi::Audio
