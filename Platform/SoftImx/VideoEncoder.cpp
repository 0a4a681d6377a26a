// The element "imxvpuenc_h264": I420 to an H.264 byte stream with an exact grid of IDR frames.
#include "SoftImx/VideoEncoder.h"

#include <gst/gst.h>
#include <gst/video/video.h>

#include <mutex>
#include <utility>

#include "SoftImx/AccessUnit.h"
#include "SoftImx/CodecBin.h"
#include "SoftImx/FrameRoute.h"
#include "SoftImx/Handover.h"

namespace SoftImx {
namespace {

/// One IDR frame in so many frames when neither interval is set.
constexpr guint DefaultInterval = 30;

struct EncoderSettings {
  guint bitrateKbps = 2048;
  guint idrInterval = 0;
  guint gopSize = 0;
};

struct EncoderState {
  std::mutex mutex;
  EncoderSettings settings;
  /// What is done with each frame, and the format that it counts for. Only the streaming thread uses them.
  FrameRoute route;
  GstVideoInfo format{};
  /// Whether downstream knows the camera's own stream.
  bool isAnnounced = false;
  /// By how much x264enc moves time stamps forward, taken from its segment. Only the streaming thread uses it.
  GstClockTime shift = 0;
};

struct VideoEncoder {
  GstBin parent;
  EncoderState* state;
};

struct VideoEncoderClass {
  GstBinClass parent;
};

enum Property : guint { PropBitrate = 1, PropIdrInterval, PropGopSize };

constexpr const char* CodecFactory = "x264enc";
/// Without a profile x264enc takes the highest that downstream accepts, which is more than the unit's encoder writes.
constexpr const char* CodecCaps =
    "video/x-h264, stream-format=(string)byte-stream, alignment=(string)au, "
    "profile=(string){ main, constrained-baseline }";
/// A camera that encodes has a profile of its own choice.
constexpr const char* OutputCaps = "video/x-h264, stream-format=(string)byte-stream, alignment=(string)au";
constexpr const char* FilterName = "filter";

EncoderState& StateOf(gpointer instance) {
  return *LoadState(static_cast<VideoEncoder*>(instance)->state);
}

gpointer ParentClass() {
  return g_type_class_peek(GST_TYPE_BIN);
}

EncoderSettings Snapshot(gpointer instance) {
  EncoderState& state = StateOf(instance);
  const std::lock_guard lock(state.mutex);
  return state.settings;
}

guint Interval(const EncoderSettings& settings) {
  if (settings.idrInterval != 0) return settings.idrInterval;
  return settings.gopSize != 0 ? settings.gopSize : DefaultInterval;
}

/// x264enc leaves room for negative decoding times by starting at 1000 hours. Its segment is moved by the same amount:
/// the upstream's own segment takes its place, and the difference is taken off each buffer.
GstEvent* RestoreSegment(GstPad* pad, GstEvent* event, GstClockTime& shift) {
  GstElement* codec = gst_pad_get_parent_element(pad);
  GstPad* sink = gst_element_get_static_pad(codec, "sink");
  GstEvent* original = gst_pad_get_sticky_event(sink, GST_EVENT_SEGMENT, 0);
  gst_object_unref(sink);
  gst_object_unref(codec);
  if (original == nullptr) return event;
  const GstSegment* moved = nullptr;
  const GstSegment* wanted = nullptr;
  gst_event_parse_segment(event, &moved);
  gst_event_parse_segment(original, &wanted);
  shift = moved->start - wanted->start;
  gst_event_unref(event);
  return original;
}

/// No frame is reordered, so a frame is decoded when it is shown.
SOFTIMX_FILLS_HEADER void RestoreTimes(GstBuffer* buffer, GstClockTime shift) {
  if (GST_BUFFER_PTS_IS_VALID(buffer)) GST_BUFFER_PTS(buffer) -= shift;
  GST_BUFFER_DTS(buffer) = GST_BUFFER_PTS(buffer);
}

GstPadProbeReturn OnOutput(GstPad* pad, GstPadProbeInfo* info, gpointer self) noexcept {
  EncoderState& state = StateOf(self);
  if ((GST_PAD_PROBE_INFO_TYPE(info) & GST_PAD_PROBE_TYPE_BUFFER) != 0) {
    GstBuffer* buffer = gst_buffer_make_writable(GST_PAD_PROBE_INFO_BUFFER(info));
    GstClockTime shift = 0;
    {
      const std::lock_guard lock(state.mutex);
      shift = state.shift;
    }
    RestoreTimes(buffer, shift);
    GST_PAD_PROBE_INFO_DATA(info) = buffer;
  } else if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == GST_EVENT_SEGMENT) {
    GstClockTime shift = 0;
    GST_PAD_PROBE_INFO_DATA(info) = RestoreSegment(pad, GST_PAD_PROBE_INFO_EVENT(info), shift);
    const std::lock_guard lock(state.mutex);
    state.shift = shift;
  }
  return GST_PAD_PROBE_OK;
}

/// A requested key frame would move all later IDR frames off the grid that readers of the stream count on.
GstPadProbeReturn DropKeyRequest(GstPad*, GstPadProbeInfo* info, gpointer) noexcept {
  const bool isRequest = gst_video_event_is_force_key_unit(GST_PAD_PROBE_INFO_EVENT(info)) == TRUE;
  return isRequest ? GST_PAD_PROBE_DROP : GST_PAD_PROBE_OK;
}

/// Tells downstream of the camera's own stream, which the codec knows nothing of.
void Announce(GstPad* sink, GstPad* src) {
  GstCaps* raw = gst_pad_get_current_caps(sink);
  GstCaps* caps = gst_caps_from_string(OutputCaps);
  if (raw != nullptr) {
    for (const char* field : {"width", "height", "framerate", "pixel-aspect-ratio"}) {
      const GValue* value = gst_structure_get_value(gst_caps_get_structure(raw, 0), field);
      if (value != nullptr) gst_caps_set_value(caps, field, value);
    }
    gst_caps_unref(raw);
  }
  for (const GstEventType type : {GST_EVENT_STREAM_START, GST_EVENT_CAPS, GST_EVENT_SEGMENT}) {
    GstEvent* event = type == GST_EVENT_CAPS ? gst_event_new_caps(caps) : gst_pad_get_sticky_event(sink, type, 0);
    if (event != nullptr) gst_pad_push_event(src, event);
  }
  gst_caps_unref(caps);
}

/// Hands on the camera's own encoding of the frame in its place.
GstFlowReturn PushUnit(GstElement* self, GstPad* sink, GstBuffer* frame, bool isAnnounced) {
  GstElement* filter = gst_bin_get_by_name(GST_BIN(self), FilterName);
  GstPad* src = gst_element_get_static_pad(filter, "src");
  gst_object_unref(filter);
  if (!isAnnounced) Announce(sink, src);
  GstBuffer* unit = gst_buffer_copy(UnitOf(frame));
  GST_BUFFER_PTS(unit) = GST_BUFFER_PTS(frame);
  GST_BUFFER_DTS(unit) = GST_BUFFER_PTS(frame);
  GST_BUFFER_DURATION(unit) = GST_BUFFER_DURATION(frame);
  const GstFlowReturn flow = gst_pad_push(src, unit);
  gst_object_unref(src);
  return flow;
}

/// Decides for each frame whether the codec sees it.
GstPadProbeReturn OnFrame(GstPad* pad, GstPadProbeInfo* info, gpointer self) noexcept {
  EncoderState& state = StateOf(self);
  GstBuffer* frame = GST_PAD_PROBE_INFO_BUFFER(info);
  FrameRoute::Step step{};
  bool isAnnounced = false;
  bool hasJustLeft = false;
  {
    const std::lock_guard lock(state.mutex);
    step = state.route.Take(frame);
    hasJustLeft = state.route.HasJustLeft();
    isAnnounced = std::exchange(state.isAnnounced, state.isAnnounced || step == FrameRoute::Step::TakeUnit);
  }
  if (hasJustLeft) {
    GST_ELEMENT_INFO(GST_ELEMENT(self), RESOURCE, SETTINGS,
                     ("A camera's own H.264 no longer has its key frames in their places: encoded anew from here on."),
                     (nullptr));
  }
  if (step == FrameRoute::Step::Encode) return GST_PAD_PROBE_OK;
  if (step == FrameRoute::Step::Skip) return GST_PAD_PROBE_DROP;
  GST_PAD_PROBE_INFO_FLOW_RETURN(info) = PushUnit(GST_ELEMENT(self), pad, frame, isAnnounced);
  gst_buffer_unref(frame);
  return GST_PAD_PROBE_HANDLED;
}

/// A new format begins a new count, for the codec as well as here.
void FollowFormat(EncoderState& state, GstEvent* event) {
  GstCaps* caps = nullptr;
  gst_event_parse_caps(event, &caps);
  GstVideoInfo format;
  if (gst_video_info_from_caps(&format, caps) == FALSE) return;
  const std::lock_guard lock(state.mutex);
  if (gst_video_info_is_equal(&format, &state.format) == TRUE) return;
  state.format = format;
  state.isAnnounced = false;
  state.route.Restart(Interval(state.settings));
}

GstPadProbeReturn OnInputEvent(GstPad* pad, GstPadProbeInfo* info, gpointer self) noexcept {
  GstEvent* event = GST_PAD_PROBE_INFO_EVENT(info);
  if (GST_EVENT_TYPE(event) == GST_EVENT_CAPS) FollowFormat(StateOf(self), event);
  return DropKeyRequest(pad, info, self);
}

/// Options that hold whatever the properties say: no delay, one thread, no key frame but those of the interval. The
/// preset is the slowest that leaves a desktop's processor to the rest: 1280x720 takes it some 3 ms a frame. The tune
/// for low latency also makes rate control count frames rather than read time stamps, which may repeat.
void Configure(GstElement* codec) {
  gst_util_set_object_arg(G_OBJECT(codec), "speed-preset", "superfast");
  gst_util_set_object_arg(G_OBJECT(codec), "tune", "zerolatency");
  // A white flash is no scene cut.
  g_object_set(codec, "threads", 1U, "sliced-threads", FALSE, "bframes", 0U, "byte-stream", TRUE, "option-string",
               "scenecut=0", nullptr);
}

void ApplyBitrate(GstElement* self, guint bitrateKbps) {
  GstElement* codec = gst_bin_get_by_name(GST_BIN(self), CodecName);
  if (codec == nullptr) return;
  g_object_set(codec, "bitrate", bitrateKbps, nullptr);
  gst_object_unref(codec);
}

bool ApplySettings(GstElement* self) {
  GstElement* codec = GetCodec(self, CodecFactory);
  if (codec == nullptr) return false;
  const EncoderSettings settings = Snapshot(self);
  g_object_set(codec, "bitrate", settings.bitrateKbps, "key-int-max", Interval(settings), nullptr);
  gst_object_unref(codec);
  return true;
}

/// The codec begins anew as well.
void Restart(EncoderState& state) {
  const std::lock_guard lock(state.mutex);
  gst_video_info_init(&state.format);
  state.isAnnounced = false;
  state.route.Restart(Interval(state.settings));
}

GstStateChangeReturn ChangeState(GstElement* element, GstStateChange transition) noexcept {
  if (transition == GST_STATE_CHANGE_NULL_TO_READY && !ApplySettings(element)) return GST_STATE_CHANGE_FAILURE;
  if (transition == GST_STATE_CHANGE_READY_TO_PAUSED) Restart(StateOf(element));
  return GST_ELEMENT_CLASS(ParentClass())->change_state(element, transition);
}

void SetProperty(GObject* object, guint id, const GValue* value, GParamSpec* description) noexcept {
  EncoderState& state = StateOf(object);
  {
    const std::lock_guard lock(state.mutex);
    switch (id) {
      case PropBitrate:
        state.settings.bitrateKbps = g_value_get_uint(value);
        break;
      case PropIdrInterval:
        state.settings.idrInterval = g_value_get_uint(value);
        break;
      case PropGopSize:
        state.settings.gopSize = g_value_get_uint(value);
        break;
      default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, description);
    }
  }
  if (id == PropBitrate) ApplyBitrate(GST_ELEMENT(object), g_value_get_uint(value));
}

void GetProperty(GObject* object, guint id, GValue* value, GParamSpec* description) noexcept {
  const EncoderSettings settings = Snapshot(object);
  switch (id) {
    case PropBitrate:
      g_value_set_uint(value, settings.bitrateKbps);
      break;
    case PropIdrInterval:
      g_value_set_uint(value, settings.idrInterval);
      break;
    case PropGopSize:
      g_value_set_uint(value, settings.gopSize);
      break;
    default:
      G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, description);
  }
}

void Finalize(GObject* object) noexcept {
  EncoderState* const state = &StateOf(object);
  G_OBJECT_CLASS(ParentClass())->finalize(object);
  DiscardState(state);
}

void InstallUint(GObjectClass* klass, Property id, const char* name, const char* blurb, guint low, guint high,
                 guint value, GParamFlags when) {
  const auto flags = GParamFlags(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | when);
  g_object_class_install_property(klass, id, g_param_spec_uint(name, name, blurb, low, high, value, flags));
}

void ClassInit(gpointer klass, gpointer) noexcept {
  GObjectClass* object = G_OBJECT_CLASS(klass);
  object->set_property = SetProperty;
  object->get_property = GetProperty;
  object->finalize = Finalize;
  const EncoderSettings defaults;
  const auto closed = GParamFlags(GST_PARAM_MUTABLE_READY);
  InstallUint(object, PropBitrate, "bitrate", "Bit rate of the stream, in kbit/s", 1, 2048000, defaults.bitrateKbps,
              GParamFlags(GST_PARAM_MUTABLE_PLAYING));
  InstallUint(object, PropIdrInterval, "idr-interval",
              "Frames from one IDR frame to the next, counted from the first (0 = gop-size)", 0, 100000,
              defaults.idrInterval, closed);
  InstallUint(
      object, PropGopSize, "gop-size",
      "Frames from one intra frame to the next, which are all IDR frames; used where idr-interval is 0 (0 = 30)", 0,
      100000, defaults.gopSize, closed);
  GstElementClass* element = GST_ELEMENT_CLASS(klass);
  element->change_state = ChangeState;
  gst_element_class_set_static_metadata(element, "H.264 encoder (software)", "Codec/Encoder/Video",
                                        "Encodes I420 frames to an H.264 byte stream, one access unit a frame", "Tavi");
  AddPadTemplate(element, "sink", GST_PAD_SINK,
                 "video/x-raw, format=(string)I420, width=(int)[ 16, 8192, 2 ], height=(int)[ 16, 8192, 2 ], "
                 "framerate=(fraction)[ 0/1, max ]");
  AddPadTemplate(element, "src", GST_PAD_SRC, OutputCaps);
}

void InstanceInit(GTypeInstance* instance, gpointer) noexcept {
  PublishState(reinterpret_cast<VideoEncoder*>(instance)->state, new EncoderState);
  GstElement* self = GST_ELEMENT(instance);
  GstElement* codec = gst_element_factory_make(CodecFactory, CodecName);
  if (codec == nullptr) return;  // Reported when the element is opened.
  GstElement* filter = gst_element_factory_make("capsfilter", FilterName);
  gst_util_set_object_arg(G_OBJECT(filter), "caps", CodecCaps);
  Configure(codec);
  gst_bin_add_many(GST_BIN(self), codec, filter, nullptr);
  gst_element_link(codec, filter);
  AddProbe(codec, "src", GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, OnOutput, self);
  AddProbe(codec, "src", GST_PAD_PROBE_TYPE_EVENT_UPSTREAM, DropKeyRequest, self);
  AddProbe(codec, "sink", GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, OnInputEvent, self);
  AddProbe(codec, "sink", GST_PAD_PROBE_TYPE_BUFFER, OnFrame, self);
  AddGhostPad(self, codec, "sink");
  AddGhostPad(self, filter, "src");
}

}  // namespace

GType VideoEncoderType() {
  static const GType type =
      g_type_register_static_simple(GST_TYPE_BIN, "SoftImxVideoEncoder", sizeof(VideoEncoderClass), ClassInit,
                                    sizeof(VideoEncoder), InstanceInit, GTypeFlags(0));
  return type;
}

}  // namespace SoftImx
