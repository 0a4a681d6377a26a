// The element "imxvpuenc_h264": I420 to an H.264 byte stream with an exact grid of IDR frames.
#include "SoftImx/VideoEncoder.h"

#include <gst/gst.h>
#include <gst/video/video.h>

#include <mutex>
#include <string>
#include <utility>

#include "SoftImx/CodecBin.h"
#include "SoftImx/CodecTimes.h"
#include "SoftImx/EncoderKind.h"
#include "SoftImx/FrameRoute.h"
#include "SoftImx/Handover.h"
#include "SoftImx/OwnStream.h"

namespace SoftImx {
namespace {

/// One IDR frame in so many frames when neither interval is set.
constexpr guint DefaultInterval = 30;

struct EncoderSettings {
  std::string codec = AnyEncoder;
  guint bitrateKbps = EncoderOrder().bitrateKbps;
  guint idrInterval = 0;
  guint gopSize = 0;
};

struct EncoderState {
  std::mutex mutex;
  EncoderSettings settings;
  /// The inside's kind while there is one, and what it was told.
  const EncoderKind* kind = nullptr;
  EncoderOrder order;
  /// What is done with each frame, and the format that it counts for. Only the streaming thread uses them.
  FrameRoute route;
  GstVideoInfo format{};
  /// Whether downstream knows the camera's own stream.
  bool isAnnounced = false;
  /// The request for a key frame that is on its way is our own.
  bool isRequesting = false;
  CodecTimes times;
};

struct VideoEncoder {
  GstBin parent;
  EncoderState* state;
};

struct VideoEncoderClass {
  GstBinClass parent;
};

enum Property : guint { PropBitrate = 1, PropIdrInterval, PropGopSize, PropCodec };

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

GstPadProbeReturn OnOutput(GstPad* pad, GstPadProbeInfo* info, gpointer self) noexcept {
  StateOf(self).times.Restore(pad, info);
  return GST_PAD_PROBE_OK;
}

/// Asks the codec for a key frame with the frame that comes next.
void RequestKeyFrame(EncoderState& state, GstPad* sink) {
  {
    const std::lock_guard lock(state.mutex);
    state.isRequesting = true;
  }
  gst_pad_send_event(sink, gst_video_event_new_downstream_force_key_unit(GST_CLOCK_TIME_NONE, GST_CLOCK_TIME_NONE,
                                                                         GST_CLOCK_TIME_NONE, TRUE, 0));
  const std::lock_guard lock(state.mutex);
  state.isRequesting = false;
}

/// A requested key frame would move all later IDR frames off the grid that readers of the stream count on.
GstPadProbeReturn DropKeyRequest(GstPad*, GstPadProbeInfo* info, gpointer) noexcept {
  const bool isRequest = gst_video_event_is_force_key_unit(GST_PAD_PROBE_INFO_EVENT(info)) == TRUE;
  return isRequest ? GST_PAD_PROBE_DROP : GST_PAD_PROBE_OK;
}

GstFlowReturn PushUnitOf(GstElement* self, GstPad* sink, GstBuffer* frame, bool isAnnounced) {
  GstElement* filter = gst_bin_get_by_name(GST_BIN(self), FilterName);
  GstPad* src = gst_element_get_static_pad(filter, "src");
  gst_object_unref(filter);
  if (!isAnnounced) AnnounceOwnStream(sink, src);
  const GstFlowReturn flow = PushUnit(src, frame);
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
  bool isKeyDue = false;
  {
    const std::lock_guard lock(state.mutex);
    step = state.route.Take(frame);
    hasJustLeft = state.route.HasJustLeft();
    isKeyDue = step == FrameRoute::Step::Encode && state.route.IsOnGrid() && state.kind->needsRequests;
    isAnnounced = std::exchange(state.isAnnounced, state.isAnnounced || step == FrameRoute::Step::TakeUnit);
  }
  if (hasJustLeft) {
    GST_ELEMENT_INFO(GST_ELEMENT(self), RESOURCE, SETTINGS,
                     ("A camera's own H.264 no longer has its key frames in their places: encoded anew from here on."),
                     (nullptr));
  }
  if (isKeyDue) RequestKeyFrame(state, pad);
  if (step == FrameRoute::Step::Encode) return GST_PAD_PROBE_OK;
  if (step == FrameRoute::Step::Skip) return GST_PAD_PROBE_DROP;
  GST_PAD_PROBE_INFO_FLOW_RETURN(info) = PushUnitOf(GST_ELEMENT(self), pad, frame, isAnnounced);
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
  state.route.Restart(state.order.interval);
}

GstPadProbeReturn OnInputEvent(GstPad* pad, GstPadProbeInfo* info, gpointer self) noexcept {
  GstEvent* event = GST_PAD_PROBE_INFO_EVENT(info);
  EncoderState& state = StateOf(self);
  if (GST_EVENT_TYPE(event) == GST_EVENT_CAPS) FollowFormat(state, event);
  {
    const std::lock_guard lock(state.mutex);
    if (state.isRequesting) return GST_PAD_PROBE_OK;
  }
  return DropKeyRequest(pad, info, self);
}

void SetTarget(GstElement* self, const char* name, GstElement* child) {
  GstPad* own = gst_element_get_static_pad(self, name);
  GstPad* target = child != nullptr ? gst_element_get_static_pad(child, name) : nullptr;
  gst_ghost_pad_set_target(GST_GHOST_PAD(own), target);
  if (target != nullptr) gst_object_unref(target);
  gst_object_unref(own);
}

void Clear(GstElement* self) {
  SetTarget(self, "sink", nullptr);
  SetTarget(self, "src", nullptr);
  while (GST_BIN_CHILDREN(self) != nullptr) {
    GstElement* child = GST_ELEMENT(gst_object_ref(GST_BIN_CHILDREN(self)->data));
    gst_element_set_state(child, GST_STATE_NULL);
    gst_bin_remove(GST_BIN(self), child);
    gst_object_unref(child);
  }
}

/// Puts codec and filter into the bin; hardware takes other formats than I420.
bool Fill(GstElement* self, const EncoderKind& kind) {
  GstElement* codec = gst_element_factory_make(kind.factory, CodecName);
  GstElement* filter = gst_element_factory_make("capsfilter", FilterName);
  GstElement* convert = kind.isHardware ? gst_element_factory_make("videoconvert", nullptr) : nullptr;
  const bool isWhole = codec != nullptr && filter != nullptr && (convert != nullptr || !kind.isHardware);
  for (GstElement* child : {convert, codec, filter}) {
    if (child != nullptr) gst_bin_add(GST_BIN(self), child);
  }
  if (!isWhole) return false;
  gst_util_set_object_arg(G_OBJECT(filter), "caps", kind.caps);
  kind.prepare(codec);
  GstElement* first = convert != nullptr ? convert : codec;
  AddProbe(codec, "src", GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, OnOutput, self);
  AddProbe(codec, "src", GST_PAD_PROBE_TYPE_EVENT_UPSTREAM, DropKeyRequest, self);
  AddProbe(first, "sink", GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, OnInputEvent, self);
  AddProbe(first, "sink", GST_PAD_PROBE_TYPE_BUFFER, OnFrame, self);
  SetTarget(self, "sink", first);
  SetTarget(self, "src", filter);
  return (convert == nullptr || gst_element_link(convert, codec) == TRUE) && gst_element_link(codec, filter) == TRUE;
}

void Tell(GstElement* self, const EncoderKind& kind, const EncoderOrder& order) {
  GstElement* codec = gst_bin_get_by_name(GST_BIN(self), CodecName);
  if (codec == nullptr) return;
  kind.order(codec, order);
  gst_object_unref(codec);
}

bool Build(GstElement* self) {
  EncoderState& state = StateOf(self);
  const EncoderSettings settings = Snapshot(self);
  std::string problem;
  const EncoderKind* kind = FindEncoder(settings.codec, problem);
  const EncoderOrder order{settings.bitrateKbps, Interval(settings)};
  if (kind == nullptr) {
    GST_ELEMENT_ERROR(self, CORE, MISSING_PLUGIN, ("%s", problem.c_str()), (nullptr));
    return false;
  }
  {
    const std::lock_guard lock(state.mutex);
    state.kind = kind;
    state.order = order;
  }
  if (!Fill(self, *kind)) {
    GST_ELEMENT_ERROR(self, CORE, MISSING_PLUGIN, ("The encoder \"%s\" cannot be made.", kind->factory), (nullptr));
    return false;
  }
  Tell(self, *kind, order);
  GST_ELEMENT_INFO(self, RESOURCE, SETTINGS, ("Pictures are encoded by %s.", kind->factory), (nullptr));
  return true;
}

/// The codec begins anew as well.
void Restart(EncoderState& state) {
  const std::lock_guard lock(state.mutex);
  gst_video_info_init(&state.format);
  state.isAnnounced = false;
  state.route.Restart(state.order.interval);
}

GstStateChangeReturn ChangeState(GstElement* element, GstStateChange transition) noexcept {
  const bool isOpening = transition == GST_STATE_CHANGE_NULL_TO_READY;
  if (isOpening && !Build(element)) {
    Clear(element);
    return GST_STATE_CHANGE_FAILURE;
  }
  if (transition == GST_STATE_CHANGE_READY_TO_PAUSED) Restart(StateOf(element));
  const GstStateChangeReturn result = GST_ELEMENT_CLASS(ParentClass())->change_state(element, transition);
  const bool isFailedOpening = isOpening && result == GST_STATE_CHANGE_FAILURE;
  if (isFailedOpening || transition == GST_STATE_CHANGE_READY_TO_NULL) Clear(element);
  return result;
}

void SetProperty(GObject* object, guint id, const GValue* value, GParamSpec* description) noexcept {
  EncoderState& state = StateOf(object);
  EncoderOrder order;
  const EncoderKind* kind = nullptr;
  {
    const std::lock_guard lock(state.mutex);
    switch (id) {
      case PropBitrate:
        state.settings.bitrateKbps = state.order.bitrateKbps = g_value_get_uint(value);
        break;
      case PropIdrInterval:
        state.settings.idrInterval = g_value_get_uint(value);
        break;
      case PropGopSize:
        state.settings.gopSize = g_value_get_uint(value);
        break;
      case PropCodec:
        state.settings.codec = g_value_get_string(value) != nullptr ? g_value_get_string(value) : AnyEncoder;
        break;
      default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, description);
    }
    order = state.order;
    kind = state.kind;
  }
  if (id == PropBitrate && kind != nullptr) Tell(GST_ELEMENT(object), *kind, order);
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
    case PropCodec:
      g_value_set_string(value, settings.codec.c_str());
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
  g_object_class_install_property(
      object, PropCodec,
      g_param_spec_string("codec", "codec",
                          "The encoder: v4l2, vaapi, x264 or openh264, or auto for the first of them that is there",
                          defaults.codec.c_str(), GParamFlags(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | closed)));
  GstElementClass* element = GST_ELEMENT_CLASS(klass);
  element->change_state = ChangeState;
  gst_element_class_set_static_metadata(element, "H.264 encoder (software)", "Codec/Encoder/Video",
                                        "Encodes I420 frames to an H.264 byte stream, one access unit a frame", "Tavi");
  AddPadTemplate(element, "sink", GST_PAD_SINK,
                 "video/x-raw, format=(string)I420, width=(int)[ 16, 8192, 2 ], height=(int)[ 16, 8192, 2 ], "
                 "framerate=(fraction)[ 0/1, max ]");
  AddPadTemplate(element, "src", GST_PAD_SRC, OwnStreamCaps);
}

void InstanceInit(GTypeInstance* instance, gpointer klass) noexcept {
  PublishState(reinterpret_cast<VideoEncoder*>(instance)->state, new EncoderState);
  for (const char* name : {"sink", "src"}) {
    GstPadTemplate* padTemplate = gst_element_class_get_pad_template(GST_ELEMENT_CLASS(klass), name);
    gst_element_add_pad(GST_ELEMENT(instance), gst_ghost_pad_new_no_target_from_template(name, padTemplate));
  }
}

}  // namespace

GType VideoEncoderType() {
  static const GType type =
      g_type_register_static_simple(GST_TYPE_BIN, "SoftImxVideoEncoder", sizeof(VideoEncoderClass), ClassInit,
                                    sizeof(VideoEncoder), InstanceInit, GTypeFlags(0));
  return type;
}

}  // namespace SoftImx
