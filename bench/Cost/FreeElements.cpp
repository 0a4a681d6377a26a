// Stand-ins for the unit's hardware elements that cost nothing: frames that nobody paints, bit streams of the right
// size that nobody encoded. What is left to measure is the library and GStreamer. Not for recording: nothing decodes
// them.
#include <gst/base/gstpushsrc.h>
#include <gst/gst.h>

#include <time.h>

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <iterator>

namespace {

constexpr int Width = 1280;
constexpr int Height = 720;
constexpr int PreviewWidth = 320;
constexpr int PreviewHeight = 176;
/// At 4 Mbit/s and 30 frames a second.
constexpr gsize KeyFrameBytes = 40'000;
constexpr gsize FrameBytes = 12'000;
/// An MP3 frame at 64 kbit/s and 44.1 kHz, and the samples that are in it.
constexpr gsize SoundBytes = 209;
constexpr gsize SoundSamples = 1152;

GstStaticPadTemplate g_source = GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS_ANY);
GstStaticPadTemplate g_sink = GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS_ANY);

GstCaps* RawCaps(int width, int height, int numerator, int denominator) {
  return gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, "I420", "width", G_TYPE_INT, width, "height",
                             G_TYPE_INT, height, "framerate", GST_TYPE_FRACTION, numerator, denominator, nullptr);
}

/// The settings that the library makes, of which only the frame rate and the key frames' distance are wanted.
void InstallProperties(GObjectClass* klass, std::initializer_list<const char*> names) {
  guint id = 1;
  for (const char* name : names) {
    g_object_class_install_property(
        klass, id++, g_param_spec_int(name, name, name, 0, G_MAXINT, 0, static_cast<GParamFlags>(G_PARAM_READWRITE)));
  }
}

/// So many bytes with a start code before each of these NAL units' first bytes, 16 bytes apart.
GstMemory* MakeUnit(gsize size, std::initializer_list<guint8> heads) {
  constexpr gsize Distance = 16;
  GstMemory* memory = gst_allocator_alloc(nullptr, size, nullptr);
  GstMapInfo map;
  if (gst_memory_map(memory, &map, GST_MAP_WRITE) == FALSE) return memory;
  std::fill_n(map.data, map.size, guint8{0xFF});
  guint8* at = map.data;
  for (const guint8 head : heads) {
    const guint8 start[] = {0, 0, 0, 1, head};
    std::copy(std::begin(start), std::end(start), at);
    at += Distance;
  }
  gst_memory_unmap(memory, &map);
  return memory;
}

/// A buffer of these bytes, as a memory of its own: one that many buffers have lists them all, and looks through its
/// list for each that goes.
GstBuffer* Wrap(GstMemory* bytes) {
  GstBuffer* buffer = gst_buffer_new();
  gst_buffer_append_memory(buffer, gst_memory_share(bytes, 0, -1));
  return buffer;
}

// A camera: every frame is the same bytes.
struct Camera {
  GstPushSrc parent;
  gint fps;
  /// When the next frame is there, by CLOCK_MONOTONIC; 0 before the first.
  timespec next;
  GstMemory* frame;
};
struct CameraClass {
  GstPushSrcClass parent;
};
constexpr guint DeviceId = 20;

void SetCamera(GObject* object, guint id, const GValue* value, GParamSpec*) {
  if (id == 1) reinterpret_cast<Camera*>(object)->fps = g_value_get_int(value);
}
void GetNothing(GObject*, guint, GValue*, GParamSpec*) {}

gboolean StartCamera(GstBaseSrc* base) {
  auto* camera = reinterpret_cast<Camera*>(base);
  camera->next = {};
  camera->frame = gst_allocator_alloc(nullptr, Width * Height * 3 / 2, nullptr);
  return TRUE;
}
gboolean StopCamera(GstBaseSrc* base) {
  gst_memory_unref(reinterpret_cast<Camera*>(base)->frame);
  return TRUE;
}
GstCaps* GetCameraCaps(GstBaseSrc* base, GstCaps*) {
  return RawCaps(Width, Height, reinterpret_cast<Camera*>(base)->fps, 1);
}
/// Waits as one does for a driver's next frame, and stamps it as such a source does.
GstFlowReturn CreateFrame(GstPushSrc* source, GstBuffer** out) {
  auto* camera = reinterpret_cast<Camera*>(source);
  const long interval = static_cast<long>(GST_SECOND) / camera->fps;
  timespec& next = camera->next;
  if (next.tv_sec == 0) clock_gettime(CLOCK_MONOTONIC, &next);
  next.tv_nsec += interval;
  if (next.tv_nsec >= static_cast<long>(GST_SECOND)) {
    next.tv_nsec -= static_cast<long>(GST_SECOND);
    ++next.tv_sec;
  }
  clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
  GstClock* clock = gst_element_get_clock(GST_ELEMENT(source));
  if (clock == nullptr) return GST_FLOW_FLUSHING;
  GstBuffer* buffer = Wrap(camera->frame);
  GST_BUFFER_PTS(buffer) = gst_clock_get_time(clock) - gst_element_get_base_time(GST_ELEMENT(source));
  GST_BUFFER_DURATION(buffer) = static_cast<GstClockTime>(interval);
  gst_object_unref(clock);
  *out = buffer;
  return GST_FLOW_OK;
}

void InitCameraClass(gpointer klass, gpointer) {
  G_OBJECT_CLASS(klass)->set_property = SetCamera;
  G_OBJECT_CLASS(klass)->get_property = GetNothing;
  InstallProperties(G_OBJECT_CLASS(klass), {"fps-n", "fps-d", "queue-size", "crop-meta-x", "crop-meta-y",
                                            "crop-meta-width", "crop-meta-height"});
  g_object_class_install_property(
      G_OBJECT_CLASS(klass), DeviceId,
      g_param_spec_string("device", "device", "device", "", static_cast<GParamFlags>(G_PARAM_READWRITE)));
  gst_element_class_set_static_metadata(GST_ELEMENT_CLASS(klass), "Free camera", "Source", "Costs nothing", "Tavi");
  gst_element_class_add_static_pad_template(GST_ELEMENT_CLASS(klass), &g_source);
  GST_BASE_SRC_CLASS(klass)->get_caps = GetCameraCaps;
  GST_BASE_SRC_CLASS(klass)->start = StartCamera;
  GST_BASE_SRC_CLASS(klass)->stop = StopCamera;
  GST_PUSH_SRC_CLASS(klass)->create = CreateFrame;
}
void InitCamera(GTypeInstance* instance, gpointer) {
  reinterpret_cast<Camera*>(instance)->fps = 30;
  gst_base_src_set_live(GST_BASE_SRC(instance), TRUE);
  gst_base_src_set_format(GST_BASE_SRC(instance), GST_FORMAT_TIME);
}

// What has a pad on each side.
enum class Kind { Video, Sound, Scale };
struct Filter {
  GstElement parent;
  GstPad* sink;
  GstPad* source;
  Kind kind;
  gint keyDistance;
  guint64 count;
  gsize samples;
  GstMemory* key;
  GstMemory* other;
};
struct FilterClass {
  GstElementClass parent;
  Kind kind;
};
GstElementClass* g_filterParent = nullptr;

void SetFilter(GObject* object, guint id, const GValue* value, GParamSpec*) {
  if (id == 2) reinterpret_cast<Filter*>(object)->keyDistance = g_value_get_int(value);
}

GstCaps* OutputCaps(Kind kind, const GstStructure* input) {
  gint numerator = 30;
  gint denominator = 1;
  gint rate = 44100;
  gint channels = 1;
  gst_structure_get_fraction(input, "framerate", &numerator, &denominator);
  gst_structure_get_int(input, "rate", &rate);
  gst_structure_get_int(input, "channels", &channels);
  if (kind == Kind::Scale) return RawCaps(PreviewWidth, PreviewHeight, numerator, denominator);
  if (kind == Kind::Sound) {
    return gst_caps_new_simple("audio/mpeg", "mpegversion", G_TYPE_INT, 1, "layer", G_TYPE_INT, 3, "rate", G_TYPE_INT,
                               rate, "channels", G_TYPE_INT, channels, nullptr);
  }
  return gst_caps_new_simple("video/x-h264", "stream-format", G_TYPE_STRING, "byte-stream", "alignment", G_TYPE_STRING,
                             "au", "width", G_TYPE_INT, Width, "height", G_TYPE_INT, Height, "framerate",
                             GST_TYPE_FRACTION, numerator, denominator, nullptr);
}

gboolean TakeEvent(GstPad* pad, GstObject* parent, GstEvent* event) {
  if (GST_EVENT_TYPE(event) != GST_EVENT_CAPS) return gst_pad_event_default(pad, parent, event);
  auto* filter = reinterpret_cast<Filter*>(parent);
  GstCaps* input = nullptr;
  gst_event_parse_caps(event, &input);
  GstCaps* output = OutputCaps(filter->kind, gst_caps_get_structure(input, 0));
  gst_event_unref(event);
  const gboolean taken = gst_pad_push_event(filter->source, gst_event_new_caps(output));
  gst_caps_unref(output);
  return taken;
}

gboolean TakeQuery(GstPad* pad, GstObject* parent, GstQuery* query) {
  if (GST_QUERY_TYPE(query) == GST_QUERY_ALLOCATION) return FALSE;
  if (GST_QUERY_TYPE(query) == GST_QUERY_ACCEPT_CAPS) return gst_query_set_accept_caps_result(query, TRUE), TRUE;
  if (GST_QUERY_TYPE(query) != GST_QUERY_CAPS) return gst_pad_query_default(pad, parent, query);
  const bool isSound = reinterpret_cast<Filter*>(parent)->kind == Kind::Sound;
  GstCaps* caps = gst_caps_from_string(isSound ? "audio/x-raw,format=S16LE,rate=44100,channels=1,layout=interleaved"
                                               : "video/x-raw,format=I420");
  gst_query_set_caps_result(query, caps);
  gst_caps_unref(caps);
  return TRUE;
}

GstFlowReturn Push(Filter* filter, const GstBuffer* like, bool isKey) {
  GstBuffer* buffer = Wrap(isKey ? filter->key : filter->other);
  GST_BUFFER_PTS(buffer) = GST_BUFFER_PTS(like);
  GST_BUFFER_DURATION(buffer) = GST_BUFFER_DURATION(like);
  if (!isKey) GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
  return gst_pad_push(filter->source, buffer);
}

GstFlowReturn TakeBuffer(GstPad*, GstObject* parent, GstBuffer* buffer) {
  auto* filter = reinterpret_cast<Filter*>(parent);
  GstFlowReturn flow = GST_FLOW_OK;
  if (filter->kind == Kind::Sound) {
    filter->samples += gst_buffer_get_size(buffer) / sizeof(std::int16_t);
    for (; filter->samples >= SoundSamples && flow == GST_FLOW_OK; filter->samples -= SoundSamples) {
      flow = Push(filter, buffer, true);
    }
  } else {
    const auto distance = static_cast<guint64>(filter->keyDistance);
    flow = Push(filter, buffer, distance == 0 || filter->count++ % distance == 0);
  }
  gst_buffer_unref(buffer);
  return flow;
}

GstStateChangeReturn ChangeState(GstElement* element, GstStateChange change) {
  auto* filter = reinterpret_cast<Filter*>(element);
  if (change == GST_STATE_CHANGE_READY_TO_PAUSED) {
    const gsize raw = PreviewWidth * PreviewHeight * 3 / 2;
    const gsize key = filter->kind == Kind::Video ? KeyFrameBytes : filter->kind == Kind::Sound ? SoundBytes : raw;
    filter->count = filter->samples = 0;
    // The heads of NAL units where an encoder has them, for that is as far as access units are read.
    filter->key = MakeUnit(key, {0x67, 0x68, 0x65});
    filter->other = MakeUnit(FrameBytes, {0x41});
  }
  const GstStateChangeReturn result = g_filterParent->change_state(element, change);
  if (change == GST_STATE_CHANGE_PAUSED_TO_READY) {
    gst_memory_unref(filter->key);
    gst_memory_unref(filter->other);
  }
  return result;
}

void InitFilterClass(gpointer klass, gpointer kind) {
  g_filterParent = static_cast<GstElementClass*>(g_type_class_peek_parent(klass));
  static_cast<FilterClass*>(klass)->kind = static_cast<Kind>(GPOINTER_TO_INT(kind));
  G_OBJECT_CLASS(klass)->set_property = SetFilter;
  G_OBJECT_CLASS(klass)->get_property = GetNothing;
  InstallProperties(G_OBJECT_CLASS(klass), {"bitrate", "idr-interval", "gop-size"});
  g_object_class_install_property(G_OBJECT_CLASS(klass), DeviceId,
                                  g_param_spec_boolean("high-quality-mode", "high-quality-mode", "high-quality-mode",
                                                       FALSE, static_cast<GParamFlags>(G_PARAM_READWRITE)));
  gst_element_class_set_static_metadata(GST_ELEMENT_CLASS(klass), "Free filter", "Filter", "Costs nothing", "Tavi");
  gst_element_class_add_static_pad_template(GST_ELEMENT_CLASS(klass), &g_source);
  gst_element_class_add_static_pad_template(GST_ELEMENT_CLASS(klass), &g_sink);
  GST_ELEMENT_CLASS(klass)->change_state = ChangeState;
}
void InitFilter(GTypeInstance* instance, gpointer klass) {
  auto* filter = reinterpret_cast<Filter*>(instance);
  filter->kind = static_cast<FilterClass*>(klass)->kind;
  filter->sink = gst_pad_new_from_static_template(&g_sink, "sink");
  filter->source = gst_pad_new_from_static_template(&g_source, "src");
  gst_pad_set_event_function(filter->sink, TakeEvent);
  gst_pad_set_query_function(filter->sink, TakeQuery);
  gst_pad_set_chain_function(filter->sink, TakeBuffer);
  gst_element_add_pad(GST_ELEMENT(filter), filter->sink);
  gst_element_add_pad(GST_ELEMENT(filter), filter->source);
}

GType RegisterFilter(const char* name, Kind kind) {
  const GTypeInfo info{
      sizeof(FilterClass), nullptr, nullptr,    InitFilterClass, nullptr, GINT_TO_POINTER(static_cast<int>(kind)),
      sizeof(Filter),      0,       InitFilter, nullptr};
  return g_type_register_static(GST_TYPE_ELEMENT, name, &info, static_cast<GTypeFlags>(0));
}

gboolean Init(GstPlugin* plugin) {
  const GTypeInfo info{sizeof(CameraClass), nullptr, nullptr,    InitCameraClass, nullptr, nullptr,
                       sizeof(Camera),      0,       InitCamera, nullptr};
  const GType camera = g_type_register_static(GST_TYPE_PUSH_SRC, "TaviFreeCamera", &info, static_cast<GTypeFlags>(0));
  const struct {
    const char* name;
    GType type;
  } elements[] = {{"imxv4l2videosrc", camera},
                  {"imxvpuenc_h264", RegisterFilter("TaviFreeVideoEncoder", Kind::Video)},
                  {"imxmp3audioenc", RegisterFilter("TaviFreeSoundEncoder", Kind::Sound)},
                  {"imxipuvideotransform", RegisterFilter("TaviFreeScaler", Kind::Scale)}};
  for (const auto& element : elements) {
    if (gst_element_register(plugin, element.name, GST_RANK_PRIMARY, element.type) == FALSE) return FALSE;
  }
  return TRUE;
}

}  // namespace

#define PACKAGE "tavi"
GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, tavifree, "Hardware elements that cost nothing", Init,
                  TAVI_VERSION, "LGPL", "tavi", "tavi")
