// The GStreamer branch of the microphone.
#include "Tavi/Audio/GstAudioPipelineElement.h"

#include <algorithm>
#include <string>

#include "KMedia/Alsa/AudioGain.h"
#include "Tavi/Audio/CardClock.h"
#include "Tavi/GstUtil/BranchParts.h"
#include "Tavi/GstUtil/Log.h"

namespace Tavi::Audio {

using GstUtil::GstRef;

namespace {

constexpr int UntouchedGain = -1;
constexpr float MicrosecondsPerSecond = 1e6F;
/// What the card holds while the processor is busy elsewhere; alsasrc asks for 0.2 s, which a full disk's flush
/// outlasts.
constexpr gint64 SoundBufferUs = 1'000'000;
/// What the card hands over at a time. Each period wakes two threads: the usual 10 ms would do that for less than a
/// frame, and one frame makes the whole recorder cost a seventh more than two.
constexpr float FramesAPeriod = 2.0F;
/// A card that came back is timed anew, by its driver's time stamps of the system's clock; they were seen to go back by
/// 17 ms, and cannot by much more than a period.
constexpr GstClockTime MostCorrected = 100 * GST_MSECOND;

/// What the device is asked for, as far as it is not left to it.
void SetForm(GstElement* filter, const AudioConfig& config) {
  GstCaps* caps = gst_caps_new_empty_simple("audio/x-raw");
  if (config.channels > 0) gst_caps_set_simple(caps, "channels", G_TYPE_INT, config.channels, nullptr);
  if (config.rate > 0) gst_caps_set_simple(caps, "rate", G_TYPE_INT, config.rate, nullptr);
  g_object_set(filter, "caps", caps, nullptr);
  gst_caps_unref(caps);
}

}  // namespace

GstAudioPipelineElement::GstAudioPipelineElement(const AudioConfig& config) {
  if (GstElement* pipeline = m_ends.MakePipeline("audio-pipeline")) Init(pipeline, config);
}

GstAudioPipelineElement::GstAudioPipelineElement(GstElement* pipeline, const AudioConfig& config) {
  if (pipeline != nullptr) Init(pipeline, config);
}

GstAudioPipelineElement::~GstAudioPipelineElement() = default;

void GstAudioPipelineElement::Init(GstElement* pipeline, const AudioConfig& config) {
  if (config.gainLevel != UntouchedGain) KMedia::Alsa::ChangeAudioGainLevel(config.gainLevel, config.device);
  m_config = config;
  GstUtil::BranchParts parts;
  GstElement* source = parts.Make("alsasrc");
  GstElement* sink = parts.Make("appsink");
  GstElement* encoder = parts.Make("imxmp3audioenc");
  GstElement* form = config.channels > 0 || config.rate > 0 ? parts.Make("capsfilter") : nullptr;
  if (!parts.IsComplete()) return;
  g_object_set(source, "latency-time",
               static_cast<gint64>(FramesAPeriod * MicrosecondsPerSecond / std::max(config.frameRate, 1.0F)),
               "buffer-time", SoundBufferUs, nullptr);
  m_clock = CardClock::Guard(source);
  if (!config.device.empty()) g_object_set(source, "device", config.device.c_str(), nullptr);
  if (form != nullptr) SetForm(form, config);
  g_object_set(encoder, "high-quality-mode", TRUE, "bitrate", config.bitrate, nullptr);
  GstUtil::AddToBin(GST_BIN(pipeline), {source, form, encoder, sink});
  GstUtil::LinkChain({source, form, encoder, sink});
  m_ends.ConnectSource(source, RunningCallback, this);
  m_ends.ConnectSink(sink, SetEncodedFrameCallback, this);
  m_branch.Keep({source, form, encoder, sink});
  // Opened once, as the pipeline's start will do: a card that is not there would fail that start as a whole, cameras
  // included.
  m_branch.TakeDown();
  if (m_branch.TryOpen()) {
    // Others may have the card until then.
    m_branch.TakeDown();
    m_branch.Release();
  } else {
    Log::Error("the microphone cannot be opened (" + m_branch.GetProblem() + "): there is no sound");
  }
}

GstPadProbeReturn GstAudioPipelineElement::RunningCallback(GstPad* /*pad*/, GstPadProbeInfo* /*info*/,
                                                           void* element) noexcept {
  const auto* self = static_cast<const GstAudioPipelineElement*>(element);
  // What is read then is no sound.
  if (self->m_clock && self->m_clock->IsCardGone()) return GST_PAD_PROBE_DROP;
  return self->m_ends.Pass();
}

GstFlowReturn GstAudioPipelineElement::SetEncodedFrameCallback(GstAppSink* sink, void* element) noexcept {
  auto* self = static_cast<GstAudioPipelineElement*>(element);
  return self->m_ends.Deliver(sink, [self](GstSample* sample) {
    if (self->IsBehindTheLast(GST_BUFFER_PTS(gst_sample_get_buffer(sample)))) return;
    self->SetFrame(GstUtil::ShareBuffer(sample));
  });
}

bool GstAudioPipelineElement::IsBehindTheLast(GstClockTime timestamp) {
  const GstClockTime last = m_lastTimestamp;
  if (!GST_CLOCK_TIME_IS_VALID(timestamp)) return false;
  // A time that begins anew far behind is somebody else's decision, and no reason to lose sound.
  if (GST_CLOCK_TIME_IS_VALID(last) && timestamp < last && last - timestamp < MostCorrected) return true;
  m_lastTimestamp = timestamp;
  return false;
}

}  // namespace Tavi::Audio
