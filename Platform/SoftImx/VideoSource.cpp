// The element "imxv4l2videosrc": a camera, or a simulated one, as live I420 of the asked size.
#include "SoftImx/VideoSource.h"

#include <gst/gst.h>
#include <gst/video/gstvideometa.h>
#include <gst/video/video.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <string_view>

#include "SoftImx/CaptureChain.h"
#include "SoftImx/Handover.h"
#include "SoftImx/SceneSource.h"

namespace SoftImx {
namespace {

/// From the encoder's smallest picture to the largest that the unit's own encoder takes.
constexpr int SmallestSide = 16;
constexpr int MostWidth = 1920;
constexpr int MostHeight = 1088;
constexpr std::string_view ScenePrefix = "sim:";

struct CropRect {
  int x = 0;
  int y = 0;
  int width = 0;
  int height = 0;
};

struct Settings {
  CaptureSettings capture;
  CropRect crop;
};

/// The application sets it, the streaming thread reads the crop of it with every frame.
struct SourceState {
  std::mutex mutex;
  Settings settings;
};

struct VideoSource {
  GstBin parent;
  SourceState* state;
};

struct VideoSourceClass {
  GstBinClass parent;
};

enum Property : guint {
  PropDevice = 1,
  PropFpsN,
  PropFpsD,
  PropQueueSize,
  PropWidth,
  PropHeight,
  PropBitrate,
  PropCropX,
  PropCropY,
  PropCropWidth,
  PropCropHeight,
};

SourceState& StateOf(gpointer instance) {
  return *LoadState(static_cast<VideoSource*>(instance)->state);
}

gpointer ParentClass() {
  return g_type_class_peek(GST_TYPE_BIN);
}

Settings Snapshot(gpointer instance) {
  SourceState& state = StateOf(instance);
  const std::lock_guard lock(state.mutex);
  return state.settings;
}

/// The crop rectangle cut to the frame; empty when nothing of it is left.
CropRect ClampedCrop(const Settings& settings) {
  const CropRect& crop = settings.crop;
  const PictureRate& frame = settings.capture.picture;
  const int x = std::min(crop.x, frame.width);
  const int y = std::min(crop.y, frame.height);
  return {x, y, std::min(crop.width, frame.width - x), std::min(crop.height, frame.height - y)};
}

SOFTIMX_FILLS_HEADER void Mark(GstBuffer* buffer, const CropRect& crop) {
  GstVideoCropMeta* meta = gst_buffer_add_video_crop_meta(buffer);
  meta->x = static_cast<guint>(crop.x);
  meta->y = static_cast<guint>(crop.y);
  meta->width = static_cast<guint>(crop.width);
  meta->height = static_cast<guint>(crop.height);
}

/// Marks the rectangle on each frame; the pixels stay as they are, only a shared buffer's header is copied.
GstPadProbeReturn AddCrop(GstPad*, GstPadProbeInfo* info, gpointer self) noexcept {
  SourceState& state = StateOf(self);
  CropRect crop;
  {
    const std::lock_guard lock(state.mutex);
    crop = ClampedCrop(state.settings);
  }
  if (crop.width <= 0 || crop.height <= 0) return GST_PAD_PROBE_OK;
  GstBuffer* buffer = gst_buffer_make_writable(GST_PAD_PROBE_INFO_BUFFER(info));
  Mark(buffer, crop);
  GST_PAD_PROBE_INFO_DATA(info) = buffer;
  return GST_PAD_PROBE_OK;
}

GstElement* BuildScene(GstElement* self, const CaptureSettings& settings) {
  SceneSettings sceneSettings;
  sceneSettings.rateNumerator = settings.picture.rateNumerator;
  sceneSettings.rateDenominator = settings.picture.rateDenominator;
  sceneSettings.width = settings.picture.width;
  sceneSettings.height = settings.picture.height;
  sceneSettings.queueSize = settings.queueSize;
  if (!ApplySceneName(settings.device.substr(ScenePrefix.size()), sceneSettings)) {
    GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS,
                      ("The camera \"%s\" names no scene after the colon.", settings.device.c_str()), (nullptr));
    return nullptr;
  }
  GstElement* scene = NewSceneSource(sceneSettings);
  gst_bin_add(GST_BIN(self), scene);
  return scene;
}

bool Build(GstElement* self) {
  const Settings all = Snapshot(self);
  CaptureSettings settings = all.capture;
  settings.isCropped = all.crop.width > 0 && all.crop.height > 0;
  const bool isScene = settings.device.starts_with(ScenePrefix);
  GstElement* last = isScene ? BuildScene(self, settings) : BuildCapture(self, settings);
  if (last == nullptr) return false;
  GstPad* own = gst_element_get_static_pad(self, "src");
  GstPad* target = gst_element_get_static_pad(last, "src");
  gst_pad_add_probe(target, GST_PAD_PROBE_TYPE_BUFFER, AddCrop, self, nullptr);
  const bool isSet = gst_ghost_pad_set_target(GST_GHOST_PAD(own), target) == TRUE;
  gst_object_unref(target);
  gst_object_unref(own);
  return isSet;
}

void Clear(GstElement* self) {
  GstPad* own = gst_element_get_static_pad(self, "src");
  gst_ghost_pad_set_target(GST_GHOST_PAD(own), nullptr);
  gst_object_unref(own);
  while (GST_BIN_CHILDREN(self) != nullptr) {
    GstElement* child = GST_ELEMENT(gst_object_ref(GST_BIN_CHILDREN(self)->data));
    gst_element_set_state(child, GST_STATE_NULL);
    gst_bin_remove(GST_BIN(self), child);
    gst_object_unref(child);
  }
}

GstStateChangeReturn ChangeState(GstElement* element, GstStateChange transition) noexcept {
  const bool isOpening = transition == GST_STATE_CHANGE_NULL_TO_READY;
  if (isOpening && !Build(element)) {
    Clear(element);
    return GST_STATE_CHANGE_FAILURE;
  }
  const GstStateChangeReturn result = GST_ELEMENT_CLASS(ParentClass())->change_state(element, transition);
  const bool isFailedOpening = isOpening && result == GST_STATE_CHANGE_FAILURE;
  if (isFailedOpening || transition == GST_STATE_CHANGE_READY_TO_NULL) Clear(element);
  return result;
}

/// Errors of the elements inside speak of themselves; the recorder's log is to say which camera is meant.
void HandleMessage(GstBin* bin, GstMessage* message) noexcept {
  if (GST_MESSAGE_TYPE(message) != GST_MESSAGE_ERROR || GST_MESSAGE_SRC(message) == GST_OBJECT(bin)) {
    GST_BIN_CLASS(ParentClass())->handle_message(bin, message);
    return;
  }
  GError* error = nullptr;
  gchar* detail = nullptr;
  gst_message_parse_error(message, &error, &detail);
  GError* named = g_error_new(error->domain, error->code, "The camera \"%s\" cannot be used: %s",
                              Snapshot(bin).capture.device.c_str(), error->message);
  GST_BIN_CLASS(ParentClass())->handle_message(bin, gst_message_new_error(GST_OBJECT(bin), named, detail));
  gst_message_unref(message);
  g_error_free(named);
  g_error_free(error);
  g_free(detail);
}

void SetProperty(GObject* object, guint id, const GValue* value, GParamSpec* description) noexcept {
  SourceState& state = StateOf(object);
  const std::lock_guard lock(state.mutex);
  Settings& settings = state.settings;
  switch (id) {
    case PropDevice: {
      const char* device = g_value_get_string(value);
      settings.capture.device = device != nullptr ? device : "";
      break;
    }
    case PropFpsN:
      settings.capture.picture.rateNumerator = g_value_get_int(value);
      break;
    case PropFpsD:
      settings.capture.picture.rateDenominator = g_value_get_int(value);
      break;
    case PropQueueSize:
      settings.capture.queueSize = g_value_get_int(value);
      break;
    case PropWidth:
      settings.capture.picture.width = g_value_get_int(value) & ~1;
      break;
    case PropHeight:
      settings.capture.picture.height = g_value_get_int(value) & ~1;
      break;
    case PropBitrate:
      settings.capture.bitrateKbps = g_value_get_int(value);
      break;
    case PropCropX:
      settings.crop.x = g_value_get_int(value);
      break;
    case PropCropY:
      settings.crop.y = g_value_get_int(value);
      break;
    case PropCropWidth:
      settings.crop.width = g_value_get_int(value);
      break;
    case PropCropHeight:
      settings.crop.height = g_value_get_int(value);
      break;
    default:
      G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, description);
  }
}

void GetProperty(GObject* object, guint id, GValue* value, GParamSpec* description) noexcept {
  const Settings settings = Snapshot(object);
  switch (id) {
    case PropDevice:
      g_value_set_string(value, settings.capture.device.c_str());
      break;
    case PropFpsN:
      g_value_set_int(value, settings.capture.picture.rateNumerator);
      break;
    case PropFpsD:
      g_value_set_int(value, settings.capture.picture.rateDenominator);
      break;
    case PropQueueSize:
      g_value_set_int(value, settings.capture.queueSize);
      break;
    case PropWidth:
      g_value_set_int(value, settings.capture.picture.width);
      break;
    case PropHeight:
      g_value_set_int(value, settings.capture.picture.height);
      break;
    case PropBitrate:
      g_value_set_int(value, settings.capture.bitrateKbps);
      break;
    case PropCropX:
      g_value_set_int(value, settings.crop.x);
      break;
    case PropCropY:
      g_value_set_int(value, settings.crop.y);
      break;
    case PropCropWidth:
      g_value_set_int(value, settings.crop.width);
      break;
    case PropCropHeight:
      g_value_set_int(value, settings.crop.height);
      break;
    default:
      G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, description);
  }
}

void Finalize(GObject* object) noexcept {
  SourceState* const state = &StateOf(object);
  G_OBJECT_CLASS(ParentClass())->finalize(object);
  DiscardState(state);
}

void InstallInt(GObjectClass* klass, Property id, const char* name, const char* blurb, int low, int high, int value,
                GParamFlags when) {
  const auto flags = GParamFlags(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | when);
  g_object_class_install_property(klass, id, g_param_spec_int(name, name, blurb, low, high, value, flags));
}

void InstallProperties(GObjectClass* klass) {
  const CaptureSettings defaults;
  g_object_class_install_property(
      klass, PropDevice,
      g_param_spec_string(
          "device", "device", "Path of the capture device, or \"sim:NAME\" for a simulated camera of that name",
          defaults.device.c_str(), GParamFlags(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY)));
  const auto closed = GParamFlags(GST_PARAM_MUTABLE_READY);
  const auto always = GParamFlags(GST_PARAM_MUTABLE_PLAYING);
  InstallInt(klass, PropFpsN, "fps-n", "Frames a second, numerator", 1, 1000000, defaults.picture.rateNumerator,
             closed);
  InstallInt(klass, PropFpsD, "fps-d", "Frames a second, denominator", 1, 1000000, defaults.picture.rateDenominator,
             closed);
  InstallInt(klass, PropQueueSize, "queue-size", "Number of capture buffers", 1, 64, defaults.queueSize, closed);
  InstallInt(klass, PropWidth, "width", "Width of the frames in pixels; an odd one is taken down to the even one",
             SmallestSide, MostWidth, defaults.picture.width, closed);
  InstallInt(klass, PropHeight, "height", "Height of the frames in pixels; an odd one is taken down to the even one",
             SmallestSide, MostHeight, defaults.picture.height, closed);
  InstallInt(klass, PropBitrate, "bitrate", "Asked of a camera that encodes, in kbit/s (0 = its own)", 0, 2000000,
             defaults.bitrateKbps, closed);
  InstallInt(klass, PropCropX, "crop-meta-x", "Left edge of the crop rectangle marked on frames, in pixels", 0,
             MostWidth, 0, always);
  InstallInt(klass, PropCropY, "crop-meta-y", "Top edge of the crop rectangle marked on frames, in pixels", 0,
             MostHeight, 0, always);
  InstallInt(klass, PropCropWidth, "crop-meta-width",
             "Width of the crop rectangle marked on frames, in pixels (0 = no crop)", 0, MostWidth, 0, always);
  InstallInt(klass, PropCropHeight, "crop-meta-height",
             "Height of the crop rectangle marked on frames, in pixels (0 = no crop)", 0, MostHeight, 0, always);
}

void ClassInit(gpointer klass, gpointer) noexcept {
  GObjectClass* object = G_OBJECT_CLASS(klass);
  object->set_property = SetProperty;
  object->get_property = GetProperty;
  object->finalize = Finalize;
  InstallProperties(object);
  GstElementClass* element = GST_ELEMENT_CLASS(klass);
  element->change_state = ChangeState;
  GST_BIN_CLASS(klass)->handle_message = HandleMessage;
  gst_element_class_set_static_metadata(element, "Camera source (software)", "Source/Video",
                                        "Captures a V4L2 device or a simulated camera as I420 of the asked size",
                                        "Tavi");
  GstCaps* caps = gst_caps_from_string(
      "video/x-raw, format=(string)I420, width=(int)[ 16, 1920, 2 ], height=(int)[ 16, 1088, 2 ], "
      "framerate=(fraction)[ 1/1000000, 1000000/1 ]");
  gst_element_class_add_pad_template(element, gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, caps));
  gst_caps_unref(caps);
}

void InstanceInit(GTypeInstance* instance, gpointer klass) noexcept {
  PublishState(reinterpret_cast<VideoSource*>(instance)->state, new SourceState);
  GstPadTemplate* padTemplate = gst_element_class_get_pad_template(GST_ELEMENT_CLASS(klass), "src");
  gst_element_add_pad(GST_ELEMENT(instance), gst_ghost_pad_new_no_target_from_template("src", padTemplate));
  // A pipeline looks for its sources before this bin has any inside.
  GST_OBJECT_FLAG_SET(instance, GST_ELEMENT_FLAG_SOURCE);
}

}  // namespace

GType VideoSourceType() {
  static const GType type = g_type_register_static_simple(GST_TYPE_BIN, "SoftImxVideoSource", sizeof(VideoSourceClass),
                                                          ClassInit, sizeof(VideoSource), InstanceInit, GTypeFlags(0));
  return type;
}

}  // namespace SoftImx
