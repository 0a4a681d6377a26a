// The element "imxipuvideotransform": crops, scales and converts raw video in one pass.
#include "SoftImx/VideoTransform.h"

#include <gst/gst.h>
#include <gst/video/gstvideofilter.h>
#include <gst/video/gstvideometa.h>
#include <gst/video/video.h>
#include <libyuv.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <optional>

#include "SoftImx/Handover.h"

namespace SoftImx {
namespace {

struct CropRect {
  int x;
  int y;
  int width;
  int height;
  bool operator==(const CropRect&) const = default;
};

struct ConverterDeleter {
  void operator()(GstVideoConverter* converter) const { gst_video_converter_free(converter); }
};

/// The converter for formats other than I420, kept as long as the caps and the crop rectangle stay.
struct TransformState {
  /// Never contended: it orders one streaming thread after the one before a restart.
  std::mutex mutex;
  std::unique_ptr<GstVideoConverter, ConverterDeleter> converter;
  CropRect converterCrop{};
};

struct VideoTransform {
  GstVideoFilter parent;
  TransformState* state;
};

struct VideoTransformClass {
  GstVideoFilterClass parent;
};

TransformState& StateOf(gpointer instance) {
  return *LoadState(static_cast<VideoTransform*>(instance)->state);
}

gpointer ParentClass() {
  return g_type_class_peek(GST_TYPE_VIDEO_FILTER);
}

/// The part of `buffer` to show: its crop rectangle widened to whole chroma samples and cut to the frame; nothing when
/// it has none, or one that is empty or covers the frame.
std::optional<CropRect> CropOf(GstBuffer* buffer, const GstVideoInfo& info) {
  const GstVideoCropMeta* meta = gst_buffer_get_video_crop_meta(buffer);
  if (meta == nullptr) return std::nullopt;
  const int frameWidth = GST_VIDEO_INFO_WIDTH(&info);
  const int frameHeight = GST_VIDEO_INFO_HEIGHT(&info);
  const auto edge = [](guint64 value, int limit) { return static_cast<int>(std::min<guint64>(value, guint64(limit))); };
  const int gridX = GST_VIDEO_FORMAT_INFO_W_SUB(info.finfo, GST_VIDEO_COMP_U);
  const int gridY = GST_VIDEO_FORMAT_INFO_H_SUB(info.finfo, GST_VIDEO_COMP_U);
  const auto down = [](int value, int grid) { return value >> grid << grid; };
  const auto up = [](int value, int grid) { return -(-value >> grid << grid); };
  const int left = down(edge(meta->x, frameWidth), gridX);
  const int top = down(edge(meta->y, frameHeight), gridY);
  const int right = std::min(up(edge(guint64(meta->x) + meta->width, frameWidth), gridX), frameWidth);
  const int bottom = std::min(up(edge(guint64(meta->y) + meta->height, frameHeight), gridY), frameHeight);
  const bool isEmpty = meta->width == 0 || meta->height == 0 || right <= left || bottom <= top;
  const bool isWhole = right - left == frameWidth && bottom - top == frameHeight;
  if (isEmpty || isWhole) return std::nullopt;
  return CropRect{left, top, right - left, bottom - top};
}

const std::uint8_t* PlaneAt(const GstVideoFrame* frame, guint plane, int x, int y) {
  const auto* data = static_cast<const std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(frame, plane));
  return data + static_cast<std::ptrdiff_t>(y) * GST_VIDEO_FRAME_PLANE_STRIDE(frame, plane) + x;
}

std::uint8_t* Plane(GstVideoFrame* frame, guint plane) {
  return static_cast<std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(frame, plane));
}

/// The box filter averages all pixels that fall into one when the picture shrinks, so that fine patterns do not alias;
/// when it grows libyuv takes bilinear by itself.
bool ScaleI420(GstVideoFrame* in, GstVideoFrame* out, const CropRect& crop) {
  const int chromaX = crop.x / 2;
  const int chromaY = crop.y / 2;
  return libyuv::I420Scale(PlaneAt(in, 0, crop.x, crop.y), GST_VIDEO_FRAME_PLANE_STRIDE(in, 0),
                           PlaneAt(in, 1, chromaX, chromaY), GST_VIDEO_FRAME_PLANE_STRIDE(in, 1),
                           PlaneAt(in, 2, chromaX, chromaY), GST_VIDEO_FRAME_PLANE_STRIDE(in, 2), crop.width,
                           crop.height, Plane(out, 0), GST_VIDEO_FRAME_PLANE_STRIDE(out, 0), Plane(out, 1),
                           GST_VIDEO_FRAME_PLANE_STRIDE(out, 1), Plane(out, 2), GST_VIDEO_FRAME_PLANE_STRIDE(out, 2),
                           GST_VIDEO_FRAME_WIDTH(out), GST_VIDEO_FRAME_HEIGHT(out), libyuv::kFilterBox) == 0;
}

GstVideoConverter* NewConverter(GstVideoFilter* filter, const CropRect& crop) {
  GstStructure* config =
      gst_structure_new("options", GST_VIDEO_CONVERTER_OPT_SRC_X, G_TYPE_INT, crop.x, GST_VIDEO_CONVERTER_OPT_SRC_Y,
                        G_TYPE_INT, crop.y, GST_VIDEO_CONVERTER_OPT_SRC_WIDTH, G_TYPE_INT, crop.width,
                        GST_VIDEO_CONVERTER_OPT_SRC_HEIGHT, G_TYPE_INT, crop.height, nullptr);
  return gst_video_converter_new(&filter->in_info, &filter->out_info, config);
}

bool Convert(GstVideoFilter* filter, GstVideoFrame* in, GstVideoFrame* out, const CropRect& crop) {
  TransformState& state = StateOf(filter);
  const std::lock_guard lock(state.mutex);
  if (!state.converter || !(state.converterCrop == crop)) {
    state.converter.reset(NewConverter(filter, crop));
    state.converterCrop = crop;
  }
  if (!state.converter) return false;
  gst_video_converter_frame(state.converter.get(), in, out);
  return true;
}

bool IsI420(const GstVideoFrame* frame) {
  return GST_VIDEO_FRAME_FORMAT(frame) == GST_VIDEO_FORMAT_I420;
}

GstFlowReturn TransformFrame(GstVideoFilter* filter, GstVideoFrame* in, GstVideoFrame* out) noexcept {
  const CropRect whole{0, 0, GST_VIDEO_FRAME_WIDTH(in), GST_VIDEO_FRAME_HEIGHT(in)};
  const CropRect crop = CropOf(in->buffer, in->info).value_or(whole);
  const bool isDone = IsI420(in) && IsI420(out) ? ScaleI420(in, out, crop) : Convert(filter, in, out, crop);
  if (isDone) return GST_FLOW_OK;
  GST_ELEMENT_ERROR(filter, STREAM, FORMAT, ("The picture cannot be converted."), (nullptr));
  return GST_FLOW_ERROR;
}

bool IsSameCaps(GstVideoFilter* filter) {
  return gst_video_info_is_equal(&filter->in_info, &filter->out_info) == TRUE;
}

GstBuffer* WithoutCrop(GstBuffer* buffer) {
  if (gst_buffer_get_video_crop_meta(buffer) == nullptr) return buffer;
  GstBuffer* writable = gst_buffer_make_writable(buffer);
  while (GstVideoCropMeta* meta = gst_buffer_get_video_crop_meta(writable)) {
    gst_buffer_remove_meta(writable, &meta->meta);
  }
  return writable;
}

/// Whether there is anything to do shows only with the buffer, so that the base class's passthrough, which is a matter
/// of the caps, cannot serve: it would also run without a pool when a crop comes.
GstFlowReturn GenerateOutput(GstBaseTransform* base, GstBuffer** output) noexcept {
  GstBuffer* const input = base->queued_buf;
  GstVideoFilter* filter = GST_VIDEO_FILTER(base);
  if (input == nullptr || !IsSameCaps(filter) || CropOf(input, filter->in_info)) {
    return GST_BASE_TRANSFORM_CLASS(ParentClass())->generate_output(base, output);
  }
  base->queued_buf = nullptr;
  *output = WithoutCrop(input);
  return GST_FLOW_OK;
}

gboolean SetInfo(GstVideoFilter* filter, GstCaps*, GstVideoInfo*, GstCaps*, GstVideoInfo*) noexcept {
  TransformState& state = StateOf(filter);
  const std::lock_guard lock(state.mutex);
  state.converter.reset();
  return TRUE;
}

/// Any raw size and format from any other; rate and interlacing stay.
GstCaps* TransformCaps(GstBaseTransform*, GstPadDirection, GstCaps* caps, GstCaps* filter) noexcept {
  GstCaps* open = gst_caps_copy(caps);
  for (guint i = 0; i < gst_caps_get_size(open); ++i) {
    GstStructure* structure = gst_caps_get_structure(open, i);
    gst_structure_remove_fields(structure, "format", "colorimetry", "chroma-site", "pixel-aspect-ratio", nullptr);
    gst_structure_set(structure, "width", GST_TYPE_INT_RANGE, 1, G_MAXINT, "height", GST_TYPE_INT_RANGE, 1, G_MAXINT,
                      nullptr);
  }
  GstCaps* result = gst_caps_merge(gst_caps_ref(caps), open);
  if (filter == nullptr) return result;
  GstCaps* common = gst_caps_intersect_full(filter, result, GST_CAPS_INTERSECT_FIRST);
  gst_caps_unref(result);
  return common;
}

/// Fields of colour mean something only beside the same format; for another one the format's own defaults apply.
void KeepColour(GstStructure* from, GstStructure* to) {
  const char* fromFormat = gst_structure_get_string(from, "format");
  if (g_strcmp0(fromFormat, gst_structure_get_string(to, "format")) != 0) return;
  for (const char* field : {"colorimetry", "chroma-site"}) {
    const char* value = gst_structure_get_string(from, field);
    if (value == nullptr) continue;
    if (gst_structure_has_field(to, field) == FALSE) {
      gst_structure_set(to, field, G_TYPE_STRING, value, nullptr);
    } else {
      gst_structure_fixate_field_string(to, field, value);
    }
  }
}

/// What downstream leaves open stays as it is on this side.
GstCaps* FixateCaps(GstBaseTransform*, GstPadDirection, GstCaps* caps, GstCaps* othercaps) noexcept {
  GstStructure* from = gst_caps_get_structure(caps, 0);
  GstCaps* result = gst_caps_make_writable(gst_caps_truncate(othercaps));
  GstStructure* to = gst_caps_get_structure(result, 0);
  if (const char* format = gst_structure_get_string(from, "format")) {
    gst_structure_fixate_field_string(to, "format", format);
  }
  for (const char* field : {"width", "height"}) {
    int value = 0;
    if (gst_structure_get_int(from, field, &value) == TRUE) gst_structure_fixate_field_nearest_int(to, field, value);
  }
  int numerator = 1;
  int denominator = 1;
  gst_structure_get_fraction(from, "pixel-aspect-ratio", &numerator, &denominator);
  if (gst_structure_has_field(to, "pixel-aspect-ratio") == TRUE) {
    gst_structure_fixate_field_nearest_fraction(to, "pixel-aspect-ratio", numerator, denominator);
  } else if (numerator != denominator) {
    gst_structure_set(to, "pixel-aspect-ratio", GST_TYPE_FRACTION, numerator, denominator, nullptr);
  }
  KeepColour(from, to);
  return gst_caps_fixate(result);
}

/// Upstream may send crop rectangles here. It may send planes of any layout only where they are read here: with equal
/// caps they may travel on to a neighbour that never said it reads them.
gboolean ProposeAllocation(GstBaseTransform* base, GstQuery* decided, GstQuery* query) noexcept {
  if (GST_BASE_TRANSFORM_CLASS(ParentClass())->propose_allocation(base, decided, query) == FALSE) return FALSE;
  gst_query_add_allocation_meta(query, GST_VIDEO_CROP_META_API_TYPE, nullptr);
  guint index = 0;
  const bool isReadBeyond =
      decided != nullptr && gst_query_find_allocation_meta(decided, GST_VIDEO_META_API_TYPE, nullptr) == TRUE;
  if (IsSameCaps(GST_VIDEO_FILTER(base)) && !isReadBeyond &&
      gst_query_find_allocation_meta(query, GST_VIDEO_META_API_TYPE, &index) == TRUE) {
    gst_query_remove_nth_allocation_meta(query, index);
  }
  return TRUE;
}

gboolean TransformMeta(GstBaseTransform* base, GstBuffer* output, GstMeta* meta, GstBuffer* input) noexcept {
  if (meta->info->api == GST_VIDEO_CROP_META_API_TYPE) return FALSE;
  return GST_BASE_TRANSFORM_CLASS(ParentClass())->transform_meta(base, output, meta, input);
}

gboolean Stop(GstBaseTransform* base) noexcept {
  TransformState& state = StateOf(base);
  const std::lock_guard lock(state.mutex);
  state.converter.reset();
  return TRUE;
}

void Finalize(GObject* object) noexcept {
  TransformState* const state = &StateOf(object);
  G_OBJECT_CLASS(ParentClass())->finalize(object);
  DiscardState(state);
}

void ClassInit(gpointer klass, gpointer) noexcept {
  G_OBJECT_CLASS(klass)->finalize = Finalize;
  GstElementClass* element = GST_ELEMENT_CLASS(klass);
  gst_element_class_set_static_metadata(element, "Video transform (software)", "Filter/Converter/Video/Scaler",
                                        "Crops by the buffers' crop rectangle, scales and converts raw video", "Tavi");
  GstCaps* caps = gst_caps_from_string(GST_VIDEO_CAPS_MAKE(GST_VIDEO_FORMATS_ALL));
  gst_element_class_add_pad_template(element, gst_pad_template_new("sink", GST_PAD_SINK, GST_PAD_ALWAYS, caps));
  gst_element_class_add_pad_template(element, gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, caps));
  gst_caps_unref(caps);
  GstBaseTransformClass* base = GST_BASE_TRANSFORM_CLASS(klass);
  base->passthrough_on_same_caps = FALSE;
  base->transform_caps = TransformCaps;
  base->fixate_caps = FixateCaps;
  base->propose_allocation = ProposeAllocation;
  base->generate_output = GenerateOutput;
  base->transform_meta = TransformMeta;
  base->stop = Stop;
  GstVideoFilterClass* filter = GST_VIDEO_FILTER_CLASS(klass);
  filter->set_info = SetInfo;
  filter->transform_frame = TransformFrame;
}

void InstanceInit(GTypeInstance* instance, gpointer) noexcept {
  PublishState(reinterpret_cast<VideoTransform*>(instance)->state, new TransformState);
  // A recorder keeps each frame, late or not.
  gst_base_transform_set_qos_enabled(GST_BASE_TRANSFORM(instance), FALSE);
}

}  // namespace

GType VideoTransformType() {
  static const GType type =
      g_type_register_static_simple(GST_TYPE_VIDEO_FILTER, "SoftImxVideoTransform", sizeof(VideoTransformClass),
                                    ClassInit, sizeof(VideoTransform), InstanceInit, GTypeFlags(0));
  return type;
}

}  // namespace SoftImx
