// The element "imxv4l2videosrc": a camera, or a simulated one, as live I420 of the asked size.
#include "SoftImx/VideoSource.h"

#include <gst/gst.h>
#include <gst/video/gstvideometa.h>
#include <gst/video/video.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <string_view>

#include "SoftImx/Handover.h"
#include "SoftImx/SceneSource.h"

namespace SoftImx {
namespace {

/// From the encoder's smallest picture to the largest that the unit's own encoder takes.
constexpr int SmallestSide = 16;
constexpr int MostWidth = 1920;
constexpr int MostHeight = 1088;
constexpr std::string_view ScenePrefix = "sim:";
/// What a device that delivers 4 frames a second needs to be brought to the rate.
constexpr GstClockTime MostCopied = 250 * GST_MSECOND;

struct CropRect {
  int x = 0;
  int y = 0;
  int width = 0;
  int height = 0;
};

struct Settings {
  std::string device = "/dev/video0";
  int rateNumerator = 30;
  int rateDenominator = 1;
  int queueSize = 4;
  int width = 1280;
  int height = 720;
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

GstCaps* OutputCaps(const Settings& settings) {
  return gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, "I420", "width", G_TYPE_INT, settings.width,
                             "height", G_TYPE_INT, settings.height, "framerate", GST_TYPE_FRACTION,
                             settings.rateNumerator, settings.rateDenominator, "pixel-aspect-ratio", GST_TYPE_FRACTION,
                             1, 1, nullptr);
}

/// The crop rectangle cut to the frame; empty when nothing of it is left.
CropRect ClampedCrop(const Settings& settings) {
  const CropRect& crop = settings.crop;
  const int x = std::min(crop.x, settings.width);
  const int y = std::min(crop.y, settings.height);
  return {x, y, std::min(crop.width, settings.width - x), std::min(crop.height, settings.height - y)};
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

/// Asks the capture for as many buffers as "queue-size" says, once downstream has stated its own needs.
GstPadProbeReturn RaisePoolMinimum(GstPad*, GstPadProbeInfo* info, gpointer self) noexcept {
  GstQuery* query = GST_PAD_PROBE_INFO_QUERY(info);
  if (GST_QUERY_TYPE(query) != GST_QUERY_ALLOCATION) return GST_PAD_PROBE_OK;
  const auto wanted = static_cast<guint>(Snapshot(self).queueSize);
  if (gst_query_get_n_allocation_pools(query) == 0) {
    gst_query_add_allocation_pool(query, nullptr, 0, wanted, 0);
    return GST_PAD_PROBE_OK;
  }
  GstBufferPool* pool = nullptr;
  guint sizeBytes = 0;
  guint minimum = 0;
  guint maximum = 0;
  gst_query_parse_nth_allocation_pool(query, 0, &pool, &sizeBytes, &minimum, &maximum);
  const guint raised = std::max(minimum, maximum == 0 ? wanted : std::min(wanted, maximum));
  gst_query_set_nth_allocation_pool(query, 0, pool, sizeBytes, raised, maximum);
  if (pool != nullptr) gst_object_unref(pool);
  return GST_PAD_PROBE_OK;
}

/// Makes an element of another plug-in in the bin; posts an error and returns null without it.
GstElement* MakeChild(GstElement* self, const char* factory) {
  GstElement* child = gst_element_factory_make(factory, nullptr);
  if (child == nullptr) {
    GST_ELEMENT_ERROR(self, CORE, MISSING_PLUGIN, ("The camera needs the element \"%s\", which is missing.", factory),
                      (nullptr));
    return nullptr;
  }
  gst_bin_add(GST_BIN(self), child);
  return child;
}

/// A capture device: whatever it offers is scaled into the frame with its shape kept, and brought to the rate.
GstElement* BuildCapture(GstElement* self, const Settings& settings) {
  GstElement* capture = MakeChild(self, "v4l2src");
  GstElement* convert = MakeChild(self, "videoconvertscale");
  GstElement* rate = MakeChild(self, "videorate");
  GstElement* filter = MakeChild(self, "capsfilter");
  if (capture == nullptr || convert == nullptr || rate == nullptr || filter == nullptr) return nullptr;
  // Left open, a device that does not tell its pixels' shape would get the flattest one that the converter takes.
  g_object_set(capture, "device", settings.device.c_str(), "pixel-aspect-ratio", "1/1", nullptr);
  // Otherwise the gap between pipeline start and the first frame, or a standstill of the device, would be filled with
  // copies of a frame: pictures of nothing, seconds of them at once.
  g_object_set(rate, "skip-to-first", TRUE, "max-duplication-time", guint64{MostCopied}, nullptr);
  GstCaps* caps = OutputCaps(settings);
  g_object_set(filter, "caps", caps, nullptr);
  gst_caps_unref(caps);
  GstPad* pad = gst_element_get_static_pad(capture, "src");
  gst_pad_add_probe(pad, GstPadProbeType(GST_PAD_PROBE_TYPE_QUERY_DOWNSTREAM | GST_PAD_PROBE_TYPE_PULL),
                    RaisePoolMinimum, self, nullptr);
  gst_object_unref(pad);
  return gst_element_link_many(capture, convert, rate, filter, nullptr) == TRUE ? filter : nullptr;
}

GstElement* BuildScene(GstElement* self, const Settings& settings) {
  SceneSettings sceneSettings;
  sceneSettings.rateNumerator = settings.rateNumerator;
  sceneSettings.rateDenominator = settings.rateDenominator;
  sceneSettings.width = settings.width;
  sceneSettings.height = settings.height;
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
  const Settings settings = Snapshot(self);
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
                              Snapshot(bin).device.c_str(), error->message);
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
      settings.device = device != nullptr ? device : "";
      break;
    }
    case PropFpsN:
      settings.rateNumerator = g_value_get_int(value);
      break;
    case PropFpsD:
      settings.rateDenominator = g_value_get_int(value);
      break;
    case PropQueueSize:
      settings.queueSize = g_value_get_int(value);
      break;
    case PropWidth:
      settings.width = g_value_get_int(value) & ~1;
      break;
    case PropHeight:
      settings.height = g_value_get_int(value) & ~1;
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
      g_value_set_string(value, settings.device.c_str());
      break;
    case PropFpsN:
      g_value_set_int(value, settings.rateNumerator);
      break;
    case PropFpsD:
      g_value_set_int(value, settings.rateDenominator);
      break;
    case PropQueueSize:
      g_value_set_int(value, settings.queueSize);
      break;
    case PropWidth:
      g_value_set_int(value, settings.width);
      break;
    case PropHeight:
      g_value_set_int(value, settings.height);
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
  const Settings defaults;
  g_object_class_install_property(
      klass, PropDevice,
      g_param_spec_string(
          "device", "device", "Path of the capture device, or \"sim:NAME\" for a simulated camera of that name",
          defaults.device.c_str(), GParamFlags(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY)));
  const auto closed = GParamFlags(GST_PARAM_MUTABLE_READY);
  const auto always = GParamFlags(GST_PARAM_MUTABLE_PLAYING);
  InstallInt(klass, PropFpsN, "fps-n", "Frames a second, numerator", 1, 1000000, defaults.rateNumerator, closed);
  InstallInt(klass, PropFpsD, "fps-d", "Frames a second, denominator", 1, 1000000, defaults.rateDenominator, closed);
  InstallInt(klass, PropQueueSize, "queue-size", "Number of capture buffers", 1, 64, defaults.queueSize, closed);
  InstallInt(klass, PropWidth, "width", "Width of the frames in pixels; an odd one is taken down to the even one",
             SmallestSide, MostWidth, defaults.width, closed);
  InstallInt(klass, PropHeight, "height", "Height of the frames in pixels; an odd one is taken down to the even one",
             SmallestSide, MostHeight, defaults.height, closed);
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
