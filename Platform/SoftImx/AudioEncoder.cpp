// The element "imxmp3audioenc": sound to MP3 frames.
#include "SoftImx/AudioEncoder.h"

#include <gst/gst.h>

#include <atomic>
#include <mutex>
#include <string>

#include "SoftImx/CodecBin.h"
#include "SoftImx/Handover.h"

namespace SoftImx {
namespace {

constexpr const char* CodecFactory = "lamemp3enc";

/// The sample rates of MPEG-1 audio (ISO/IEC 11172-3). Cards that have others are converted by ALSA.
constexpr const char* InputCaps =
    "audio/x-raw, format=(string)S16LE, layout=(string)interleaved, rate=(int){ 44100, 48000, 32000 }, "
    "channels=(int)[ 1, 2 ]";
constexpr const char* OutputCaps = "audio/mpeg, mpegversion=(int)1, layer=(int)3, rate=(int){ 44100, 48000, 32000 }";
constexpr gint UsualRate = 44100;
/// The element's child that holds the output to the input's rate: left a choice, lamemp3enc would halve it at low bit
/// rates.
constexpr const char* RateFilter = "rate";

/// By how many samples a sound lies deeper in the decoded stream than it did in the encoder's input: what the encoder
/// puts in front (lame_get_encoder_delay), and what every layer III decoder's filter bank adds (528 samples and one).
constexpr guint64 CodecDelaySamples = 576 + 529;

struct AudioSettings {
  gint bitrateKbps = 64;
  gboolean highQuality = FALSE;
};

struct AudioState {
  std::mutex mutex;
  AudioSettings settings;
  /// Of the input, in Hz.
  std::atomic<gint> sampleRate{UsualRate};
  /// While the streaming thread holds the output to it.
  std::atomic<bool> isHolding{false};
};

struct AudioEncoder {
  GstBin parent;
  AudioState* state;
};

struct AudioEncoderClass {
  GstBinClass parent;
};

enum Property : guint { PropBitrate = 1, PropHighQuality };

AudioState& StateOf(gpointer instance) {
  return *LoadState(static_cast<AudioEncoder*>(instance)->state);
}

gpointer ParentClass() {
  return g_type_class_peek(GST_TYPE_BIN);
}

/// The first frame holds little but the delay itself: it keeps time 0 where the stream has only just begun.
SOFTIMX_FILLS_HEADER void TakeOffDelay(GstBuffer* buffer, gint sampleRate) {
  if (!GST_BUFFER_PTS_IS_VALID(buffer)) return;
  const GstClockTime delay = gst_util_uint64_scale_int(CodecDelaySamples, GST_SECOND, sampleRate);
  GST_BUFFER_PTS(buffer) -= MIN(delay, GST_BUFFER_PTS(buffer));
  GST_BUFFER_DTS(buffer) = GST_BUFFER_PTS(buffer);
}

GstPadProbeReturn OnOutput(GstPad*, GstPadProbeInfo* info, gpointer self) noexcept {
  GstBuffer* buffer = gst_buffer_make_writable(GST_PAD_PROBE_INFO_BUFFER(info));
  TakeOffDelay(buffer, StateOf(self).sampleRate);
  GST_PAD_PROBE_INFO_DATA(info) = buffer;
  return GST_PAD_PROBE_OK;
}

void HoldOutputTo(GstElement* self, const char* caps) {
  GstElement* filter = gst_bin_get_by_name(GST_BIN(self), RateFilter);
  if (filter == nullptr) return;
  gst_util_set_object_arg(G_OBJECT(filter), "caps", caps);
  gst_object_unref(filter);
}

/// Before the codec sees the input's caps, by which it chooses those of its output.
GstPadProbeReturn OnInputEvent(GstPad*, GstPadProbeInfo* info, gpointer self) noexcept {
  GstEvent* event = GST_PAD_PROBE_INFO_EVENT(info);
  if (GST_EVENT_TYPE(event) != GST_EVENT_CAPS) return GST_PAD_PROBE_OK;
  GstCaps* caps = nullptr;
  gst_event_parse_caps(event, &caps);
  gint rate = 0;
  if (!gst_structure_get_int(gst_caps_get_structure(caps, 0), "rate", &rate) || rate <= 0) return GST_PAD_PROBE_OK;
  StateOf(self).sampleRate = rate;
  const std::string output = "audio/mpeg, mpegversion=(int)1, layer=(int)3, rate=(int)" + std::to_string(rate);
  StateOf(self).isHolding = true;
  HoldOutputTo(static_cast<GstElement*>(self), output.c_str());
  StateOf(self).isHolding = false;
  return GST_PAD_PROBE_OK;
}

/// What is held is the rate that the source has: asked to agree anew, it would ask all branches of a tee in front, and
/// wait for one that waits for this one to begin.
GstPadProbeReturn OnOutputEvent(GstPad*, GstPadProbeInfo* info, gpointer self) noexcept {
  const bool isAsked = GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == GST_EVENT_RECONFIGURE;
  return isAsked && StateOf(self).isHolding ? GST_PAD_PROBE_DROP : GST_PAD_PROBE_OK;
}

bool ApplySettings(GstElement* self) {
  GstElement* codec = GetCodec(self, CodecFactory);
  if (codec == nullptr) return false;
  AudioState& state = StateOf(self);
  AudioSettings settings;
  {
    const std::lock_guard lock(state.mutex);
    settings = state.settings;
  }
  HoldOutputTo(self, OutputCaps);
  g_object_set(codec, "bitrate", settings.bitrateKbps, nullptr);
  gst_util_set_object_arg(G_OBJECT(codec), "encoding-engine-quality", settings.highQuality ? "high" : "standard");
  gst_object_unref(codec);
  return true;
}

GstStateChangeReturn ChangeState(GstElement* element, GstStateChange transition) noexcept {
  if (transition == GST_STATE_CHANGE_NULL_TO_READY && !ApplySettings(element)) return GST_STATE_CHANGE_FAILURE;
  return GST_ELEMENT_CLASS(ParentClass())->change_state(element, transition);
}

void SetProperty(GObject* object, guint id, const GValue* value, GParamSpec* description) noexcept {
  AudioState& state = StateOf(object);
  const std::lock_guard lock(state.mutex);
  switch (id) {
    case PropBitrate:
      state.settings.bitrateKbps = g_value_get_int(value);
      break;
    case PropHighQuality:
      state.settings.highQuality = g_value_get_boolean(value);
      break;
    default:
      G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, description);
  }
}

void GetProperty(GObject* object, guint id, GValue* value, GParamSpec* description) noexcept {
  AudioState& state = StateOf(object);
  const std::lock_guard lock(state.mutex);
  switch (id) {
    case PropBitrate:
      g_value_set_int(value, state.settings.bitrateKbps);
      break;
    case PropHighQuality:
      g_value_set_boolean(value, state.settings.highQuality);
      break;
    default:
      G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, description);
  }
}

void Finalize(GObject* object) noexcept {
  AudioState* const state = &StateOf(object);
  G_OBJECT_CLASS(ParentClass())->finalize(object);
  DiscardState(state);
}

void InstallProperties(GObjectClass* object) {
  const AudioSettings defaults;
  const auto flags = GParamFlags(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);
  g_object_class_install_property(
      object, PropBitrate,
      g_param_spec_int("bitrate", "bitrate", "Bit rate of the stream in kbit/s; the nearest that MP3 has", 8, 320,
                       defaults.bitrateKbps, flags));
  g_object_class_install_property(
      object, PropHighQuality,
      g_param_spec_boolean("high-quality-mode", "high-quality-mode", "Better sound for more processor time",
                           defaults.highQuality, flags));
}

void ClassInit(gpointer klass, gpointer) noexcept {
  GObjectClass* object = G_OBJECT_CLASS(klass);
  object->set_property = SetProperty;
  object->get_property = GetProperty;
  object->finalize = Finalize;
  InstallProperties(object);
  GstElementClass* element = GST_ELEMENT_CLASS(klass);
  element->change_state = ChangeState;
  gst_element_class_set_static_metadata(element, "MP3 encoder (software)", "Codec/Encoder/Audio",
                                        "Encodes sound to MP3, one frame a buffer", "Tavi");
  AddPadTemplate(element, "sink", GST_PAD_SINK, InputCaps);
  AddPadTemplate(element, "src", GST_PAD_SRC, OutputCaps);
}

void InstanceInit(GTypeInstance* instance, gpointer) noexcept {
  PublishState(reinterpret_cast<AudioEncoder*>(instance)->state, new AudioState);
  GstElement* self = GST_ELEMENT(instance);
  GstElement* codec = gst_element_factory_make(CodecFactory, CodecName);
  if (codec == nullptr) return;  // Reported when the element is opened.
  gst_util_set_object_arg(G_OBJECT(codec), "target", "bitrate");
  g_object_set(codec, "cbr", TRUE, nullptr);
  GstElement* filter = gst_element_factory_make("capsfilter", RateFilter);
  gst_util_set_object_arg(G_OBJECT(filter), "caps", OutputCaps);
  gst_bin_add_many(GST_BIN(self), codec, filter, nullptr);
  gst_element_link(codec, filter);
  AddProbe(codec, "sink", GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, OnInputEvent, self);
  AddProbe(codec, "src", GST_PAD_PROBE_TYPE_BUFFER, OnOutput, self);
  AddProbe(codec, "src", GST_PAD_PROBE_TYPE_EVENT_UPSTREAM, OnOutputEvent, self);
  AddGhostPad(self, codec, "sink");
  AddGhostPad(self, filter, "src");
}

}  // namespace

GType AudioEncoderType() {
  static const GType type =
      g_type_register_static_simple(GST_TYPE_BIN, "SoftImxAudioEncoder", sizeof(AudioEncoderClass), ClassInit,
                                    sizeof(AudioEncoder), InstanceInit, GTypeFlags(0));
  return type;
}

}  // namespace SoftImx
