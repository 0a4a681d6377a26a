// The element "imxipucompositor": several I420 pictures on one.
#include "SoftImx/Compositor.h"

#include <gst/gst.h>
#include <gst/video/gstvideoaggregator.h>
#include <gst/video/video.h>
#include <libyuv.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <mutex>

#include "SoftImx/Handover.h"

namespace SoftImx {
namespace {

/// Where a picture goes. A width or height of 0 stands for the picture's own.
struct Rectangle {
  int x = 0;
  int y = 0;
  int width = 0;
  int height = 0;
};

struct PadState {
  std::mutex mutex;
  Rectangle rectangle;
};

struct CompositorPad {
  GstVideoAggregatorPad parent;
  PadState* state;
};

struct CompositorPadClass {
  GstVideoAggregatorPadClass parent;
};

/// 0xRRGGBB.
using Colour = std::atomic<guint>;

struct Compositor {
  GstVideoAggregator parent;
  Colour* background;
};

struct CompositorClass {
  GstVideoAggregatorClass parent;
};

enum PadProperty : guint { PropX = 1, PropY, PropWidth, PropHeight };
enum Property : guint { PropBackground = 1 };

constexpr guint White = 0xffffff;

GstStaticPadTemplate sinkTemplate =
    GST_STATIC_PAD_TEMPLATE("sink_%u", GST_PAD_SINK, GST_PAD_REQUEST, GST_STATIC_CAPS(GST_VIDEO_CAPS_MAKE("I420")));
GstStaticPadTemplate srcTemplate =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS(GST_VIDEO_CAPS_MAKE("I420")));

PadState& StateOf(gpointer pad) {
  return *LoadState(static_cast<CompositorPad*>(pad)->state);
}

Colour& BackgroundOf(gpointer compositor) {
  return *LoadState(static_cast<Compositor*>(compositor)->background);
}

gpointer PadParentClass() {
  return g_type_class_peek(GST_TYPE_VIDEO_AGGREGATOR_PAD);
}

gpointer ParentClass() {
  return g_type_class_peek(GST_TYPE_VIDEO_AGGREGATOR);
}

Rectangle RectangleOf(gpointer pad) {
  PadState& state = StateOf(pad);
  const std::lock_guard lock(state.mutex);
  return state.rectangle;
}

int* FieldOf(Rectangle& rectangle, guint id) {
  switch (id) {
    case PropX:
      return &rectangle.x;
    case PropY:
      return &rectangle.y;
    case PropWidth:
      return &rectangle.width;
    case PropHeight:
      return &rectangle.height;
    default:
      return nullptr;
  }
}

void SetPadProperty(GObject* object, guint id, const GValue* value, GParamSpec* description) noexcept {
  PadState& state = StateOf(object);
  const std::lock_guard lock(state.mutex);
  if (int* field = FieldOf(state.rectangle, id)) {
    *field = g_value_get_int(value);
  } else {
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, description);
  }
}

void GetPadProperty(GObject* object, guint id, GValue* value, GParamSpec* description) noexcept {
  Rectangle rectangle = RectangleOf(object);
  if (const int* field = FieldOf(rectangle, id)) {
    g_value_set_int(value, *field);
  } else {
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, description);
  }
}

void FinalizePad(GObject* object) noexcept {
  PadState* const state = &StateOf(object);
  G_OBJECT_CLASS(PadParentClass())->finalize(object);
  DiscardState(state);
}

void PadClassInit(gpointer klass, gpointer) noexcept {
  GObjectClass* object = G_OBJECT_CLASS(klass);
  object->set_property = SetPadProperty;
  object->get_property = GetPadProperty;
  object->finalize = FinalizePad;
  const auto flags = GParamFlags(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING);
  const auto install = [&](PadProperty id, const char* name, const char* blurb, int low) {
    g_object_class_install_property(object, id, g_param_spec_int(name, name, blurb, low, G_MAXINT16, 0, flags));
  };
  install(PropX, "xpos", "Left edge of the picture, in pixels of the output", G_MININT16);
  install(PropY, "ypos", "Upper edge of the picture, in pixels of the output", G_MININT16);
  install(PropWidth, "width", "Width of the picture in the output (0 = its own)", 0);
  install(PropHeight, "height", "Height of the picture in the output (0 = its own)", 0);
}

void PadInit(GTypeInstance* instance, gpointer) noexcept {
  PublishState(reinterpret_cast<CompositorPad*>(instance)->state, new PadState);
}

GType CompositorPadType() {
  static const GType type =
      g_type_register_static_simple(GST_TYPE_VIDEO_AGGREGATOR_PAD, "SoftImxCompositorPad", sizeof(CompositorPadClass),
                                    PadClassInit, sizeof(CompositorPad), PadInit, GTypeFlags(0));
  return type;
}

/// The part of one axis that can be seen: in the output, and of the source. Both lie on the grid of the chroma samples.
struct Span {
  int at = 0;
  int size = 0;
  int sourceAt = 0;
  int sourceSize = 0;
};

Span Clip(int at, int size, int limit, int sourceSize) {
  const int whole = size == 0 ? sourceSize : size;
  const int begin = std::max(at, 0) & ~1;
  const int end = std::min({(at + whole + 1) & ~1, (limit + 1) & ~1});
  if (end <= begin) return {};
  const auto toSource = [&](int place) {
    const auto scaled = std::int64_t{place - at} * sourceSize / whole;
    return static_cast<int>(std::clamp<std::int64_t>(scaled, 0, sourceSize));
  };
  const int first = toSource(begin) & ~1;
  return {begin, std::min(end, limit) - begin, first, toSource(end) - first};
}

std::uint8_t* PlaneAt(GstVideoFrame* frame, guint plane, int x, int y) {
  auto* data = static_cast<std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(frame, plane));
  return data + static_cast<std::ptrdiff_t>(y) * GST_VIDEO_FRAME_PLANE_STRIDE(frame, plane) + x;
}

void Place(GstVideoFrame* in, const Rectangle& where, GstVideoFrame* out) {
  const Span x = Clip(where.x, where.width, GST_VIDEO_FRAME_WIDTH(out), GST_VIDEO_FRAME_WIDTH(in));
  const Span y = Clip(where.y, where.height, GST_VIDEO_FRAME_HEIGHT(out), GST_VIDEO_FRAME_HEIGHT(in));
  if (x.size <= 0 || y.size <= 0 || x.sourceSize <= 0 || y.sourceSize <= 0) return;
  const auto source = [&](guint plane) {
    return PlaneAt(in, plane, plane == 0 ? x.sourceAt : x.sourceAt / 2, plane == 0 ? y.sourceAt : y.sourceAt / 2);
  };
  const auto target = [&](guint plane) {
    return PlaneAt(out, plane, plane == 0 ? x.at : x.at / 2, plane == 0 ? y.at : y.at / 2);
  };
  libyuv::I420Scale(source(0), GST_VIDEO_FRAME_PLANE_STRIDE(in, 0), source(1), GST_VIDEO_FRAME_PLANE_STRIDE(in, 1),
                    source(2), GST_VIDEO_FRAME_PLANE_STRIDE(in, 2), x.sourceSize, y.sourceSize, target(0),
                    GST_VIDEO_FRAME_PLANE_STRIDE(out, 0), target(1), GST_VIDEO_FRAME_PLANE_STRIDE(out, 1), target(2),
                    GST_VIDEO_FRAME_PLANE_STRIDE(out, 2), x.size, y.size, libyuv::kFilterBox);
}

/// Rec. ITU-R BT.601 in studio range, in 1/256.
void Fill(GstVideoFrame* out, guint colour) {
  const int red = static_cast<int>(colour >> 16 & 255U);
  const int green = static_cast<int>(colour >> 8 & 255U);
  const int blue = static_cast<int>(colour & 255U);
  const int luma = ((66 * red + 129 * green + 25 * blue + 128) >> 8) + 16;
  const int u = ((-38 * red - 74 * green + 112 * blue + 128) >> 8) + 128;
  const int v = ((112 * red - 94 * green - 18 * blue + 128) >> 8) + 128;
  libyuv::I420Rect(PlaneAt(out, 0, 0, 0), GST_VIDEO_FRAME_PLANE_STRIDE(out, 0), PlaneAt(out, 1, 0, 0),
                   GST_VIDEO_FRAME_PLANE_STRIDE(out, 1), PlaneAt(out, 2, 0, 0), GST_VIDEO_FRAME_PLANE_STRIDE(out, 2), 0,
                   0, GST_VIDEO_FRAME_WIDTH(out), GST_VIDEO_FRAME_HEIGHT(out), luma, u, v);
}

GstFlowReturn AggregateFrames(GstVideoAggregator* aggregator, GstBuffer* buffer) noexcept {
  GstVideoFrame out;
  if (gst_video_frame_map(&out, &aggregator->info, buffer, GST_MAP_WRITE) == FALSE) {
    GST_ELEMENT_ERROR(aggregator, RESOURCE, WRITE, ("The picture cannot be mapped."), (nullptr));
    return GST_FLOW_ERROR;
  }
  Fill(&out, BackgroundOf(aggregator));
  GST_OBJECT_LOCK(aggregator);
  for (GList* item = GST_ELEMENT(aggregator)->sinkpads; item != nullptr; item = item->next) {
    GstVideoFrame* in = gst_video_aggregator_pad_get_prepared_frame(GST_VIDEO_AGGREGATOR_PAD(item->data));
    if (in != nullptr) Place(in, RectangleOf(item->data), &out);
  }
  GST_OBJECT_UNLOCK(aggregator);
  gst_video_frame_unmap(&out);
  return GST_FLOW_OK;
}

/// What downstream leaves open: the size that holds every rectangle, and the highest rate of the inputs.
GstCaps* FixateCaps(GstAggregator* aggregator, GstCaps* caps) noexcept {
  int width = 1;
  int height = 1;
  int rate = 0;
  int base = 1;
  GST_OBJECT_LOCK(aggregator);
  for (GList* item = GST_ELEMENT(aggregator)->sinkpads; item != nullptr; item = item->next) {
    const GstVideoInfo& info = GST_VIDEO_AGGREGATOR_PAD(item->data)->info;
    const Rectangle where = RectangleOf(item->data);
    width = std::max(width, where.x + (where.width != 0 ? where.width : GST_VIDEO_INFO_WIDTH(&info)));
    height = std::max(height, where.y + (where.height != 0 ? where.height : GST_VIDEO_INFO_HEIGHT(&info)));
    if (GST_VIDEO_INFO_FPS_D(&info) == 0) continue;
    if (gst_util_fraction_compare(GST_VIDEO_INFO_FPS_N(&info), GST_VIDEO_INFO_FPS_D(&info), rate, base) <= 0) continue;
    rate = GST_VIDEO_INFO_FPS_N(&info);
    base = GST_VIDEO_INFO_FPS_D(&info);
  }
  GST_OBJECT_UNLOCK(aggregator);
  GstCaps* result = gst_caps_make_writable(gst_caps_truncate(caps));
  GstStructure* structure = gst_caps_get_structure(result, 0);
  gst_structure_fixate_field_nearest_int(structure, "width", width);
  gst_structure_fixate_field_nearest_int(structure, "height", height);
  gst_structure_fixate_field_nearest_fraction(structure, "framerate", rate != 0 ? rate : 25, base);
  return gst_caps_fixate(result);
}

/// Each input is scaled, so that any size goes with any output; the base class would ask for downstream's.
gboolean SinkQuery(GstAggregator* aggregator, GstAggregatorPad* pad, GstQuery* query) noexcept {
  if (GST_QUERY_TYPE(query) != GST_QUERY_CAPS && GST_QUERY_TYPE(query) != GST_QUERY_ACCEPT_CAPS) {
    return GST_AGGREGATOR_CLASS(ParentClass())->sink_query(aggregator, pad, query);
  }
  GstCaps* any = gst_pad_get_pad_template_caps(GST_PAD(pad));
  GstCaps* given = nullptr;
  if (GST_QUERY_TYPE(query) == GST_QUERY_ACCEPT_CAPS) {
    gst_query_parse_accept_caps(query, &given);
    gst_query_set_accept_caps_result(query, gst_caps_can_intersect(given, any));
  } else {
    gst_query_parse_caps(query, &given);
    GstCaps* result =
        given != nullptr ? gst_caps_intersect_full(given, any, GST_CAPS_INTERSECT_FIRST) : gst_caps_ref(any);
    gst_query_set_caps_result(query, result);
    gst_caps_unref(result);
  }
  gst_caps_unref(any);
  return TRUE;
}

/// Pads are announced as children: a launch line sets their properties, "sink_0::xpos", as soon as they exist.
GstPad* RequestPad(GstElement* element, GstPadTemplate* padTemplate, const char* name, const GstCaps* caps) noexcept {
  GstPad* pad = GST_ELEMENT_CLASS(ParentClass())->request_new_pad(element, padTemplate, name, caps);
  if (pad != nullptr) gst_child_proxy_child_added(GST_CHILD_PROXY(element), G_OBJECT(pad), GST_OBJECT_NAME(pad));
  return pad;
}

void ReleasePad(GstElement* element, GstPad* pad) noexcept {
  gst_child_proxy_child_removed(GST_CHILD_PROXY(element), G_OBJECT(pad), GST_OBJECT_NAME(pad));
  GST_ELEMENT_CLASS(ParentClass())->release_pad(element, pad);
}

GObject* GetChild(GstChildProxy* proxy, guint index) noexcept {
  GST_OBJECT_LOCK(proxy);
  gpointer pad = g_list_nth_data(GST_ELEMENT(proxy)->sinkpads, index);
  if (pad != nullptr) gst_object_ref(pad);
  GST_OBJECT_UNLOCK(proxy);
  return static_cast<GObject*>(pad);
}

guint CountChildren(GstChildProxy* proxy) noexcept {
  GST_OBJECT_LOCK(proxy);
  const guint count = GST_ELEMENT(proxy)->numsinkpads;
  GST_OBJECT_UNLOCK(proxy);
  return count;
}

void ChildProxyInit(gpointer iface, gpointer) noexcept {
  auto* proxy = static_cast<GstChildProxyInterface*>(iface);
  proxy->get_child_by_index = GetChild;
  proxy->get_children_count = CountChildren;
}

void SetProperty(GObject* object, guint id, const GValue* value, GParamSpec* description) noexcept {
  if (id == PropBackground) {
    BackgroundOf(object) = g_value_get_uint(value);
  } else {
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, description);
  }
}

void GetProperty(GObject* object, guint id, GValue* value, GParamSpec* description) noexcept {
  if (id == PropBackground) {
    g_value_set_uint(value, BackgroundOf(object));
  } else {
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, description);
  }
}

void Finalize(GObject* object) noexcept {
  Colour* const background = &BackgroundOf(object);
  G_OBJECT_CLASS(ParentClass())->finalize(object);
  delete background;
}

void ClassInit(gpointer klass, gpointer) noexcept {
  GObjectClass* object = G_OBJECT_CLASS(klass);
  object->set_property = SetProperty;
  object->get_property = GetProperty;
  object->finalize = Finalize;
  const auto flags = GParamFlags(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING);
  g_object_class_install_property(object, PropBackground,
                                  g_param_spec_uint("background-color", "background-color",
                                                    "Colour where there is no picture, 0xRRGGBB", 0, White, 0, flags));
  GstElementClass* element = GST_ELEMENT_CLASS(klass);
  element->request_new_pad = RequestPad;
  element->release_pad = ReleasePad;
  gst_element_class_set_static_metadata(element, "Video compositor (software)", "Filter/Editor/Video/Compositor",
                                        "Scales several I420 pictures into rectangles of one", "Tavi");
  gst_element_class_add_static_pad_template_with_gtype(element, &sinkTemplate, CompositorPadType());
  gst_element_class_add_static_pad_template_with_gtype(element, &srcTemplate, GST_TYPE_AGGREGATOR_PAD);
  GST_AGGREGATOR_CLASS(klass)->fixate_src_caps = FixateCaps;
  GST_AGGREGATOR_CLASS(klass)->sink_query = SinkQuery;
  GST_VIDEO_AGGREGATOR_CLASS(klass)->aggregate_frames = AggregateFrames;
}

void InstanceInit(GTypeInstance* instance, gpointer) noexcept {
  PublishState(reinterpret_cast<Compositor*>(instance)->background, new Colour(0));
}

GType Register() {
  const GType type =
      g_type_register_static_simple(GST_TYPE_VIDEO_AGGREGATOR, "SoftImxCompositor", sizeof(CompositorClass), ClassInit,
                                    sizeof(Compositor), InstanceInit, GTypeFlags(0));
  const GInterfaceInfo childProxy{ChildProxyInit, nullptr, nullptr};
  g_type_add_interface_static(type, GST_TYPE_CHILD_PROXY, &childProxy);
  return type;
}

}  // namespace

GType CompositorType() {
  static const GType type = Register();
  return type;
}

}  // namespace SoftImx
