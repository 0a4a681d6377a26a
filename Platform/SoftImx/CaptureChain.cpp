// The elements between a V4L2 device and the frames that the unit expects.
#include "SoftImx/CaptureChain.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <utility>

#include "SoftImx/UnitRelay.h"

namespace SoftImx {
namespace {

/// What a device that delivers 4 frames a second needs to be brought to the rate.
constexpr GstClockTime MostCopied = 250 * GST_MSECOND;

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

/// The name of the machine's best decoder for `caps`; empty for none.
std::string FindDecoder(const char* caps) {
  GstCaps* parsed = gst_caps_from_string(caps);
  GList* all = gst_element_factory_list_get_elements(
      GST_ELEMENT_FACTORY_TYPE_DECODER | GST_ELEMENT_FACTORY_TYPE_MEDIA_VIDEO | GST_ELEMENT_FACTORY_TYPE_MEDIA_IMAGE,
      GST_RANK_MARGINAL);
  GList* fitting = gst_element_factory_list_filter(all, parsed, GST_PAD_SINK, FALSE);
  fitting = g_list_sort(fitting, gst_plugin_feature_rank_compare_func);
  std::string name;
  for (GList* item = fitting; item != nullptr && name.empty(); item = item->next) {
    GstElement* decoder = gst_element_factory_create(GST_ELEMENT_FACTORY(item->data), nullptr);
    if (decoder == nullptr) continue;
    gst_object_ref_sink(decoder);
    // A driver without its device is found out when it is opened.
    const bool opens = gst_element_set_state(decoder, GST_STATE_READY) != GST_STATE_CHANGE_FAILURE;
    if (opens) name = GST_OBJECT_NAME(item->data);
    gst_element_set_state(decoder, GST_STATE_NULL);
    gst_object_unref(decoder);
  }
  gst_plugin_feature_list_free(fitting);
  gst_plugin_feature_list_free(all);
  gst_caps_unref(parsed);
  return name;
}

constexpr const char* JpegCaps = "image/jpeg";
constexpr const char* H264Media = "video/x-h264";
constexpr const char* H264Caps = "video/x-h264, stream-format=(string)byte-stream, alignment=(string)au";
constexpr const char* H264Parser = "h264parse";

bool Offers(const GstCaps* caps, const char* media) {
  for (guint i = 0; i < gst_caps_get_size(caps); ++i) {
    if (gst_structure_has_name(gst_caps_get_structure(caps, i), media) == TRUE) return true;
  }
  return false;
}

bool HasElement(const char* factory) {
  GstElementFactory* found = gst_element_factory_find(factory);
  if (found != nullptr) gst_object_unref(found);
  return found != nullptr;
}

/// Asks the capture for as many buffers as it is told, once downstream has stated its own needs.
GstPadProbeReturn RaisePoolMinimum(GstPad*, GstPadProbeInfo* info, gpointer count) noexcept {
  GstQuery* query = GST_PAD_PROBE_INFO_QUERY(info);
  if (GST_QUERY_TYPE(query) != GST_QUERY_ALLOCATION) return GST_PAD_PROBE_OK;
  const auto wanted = GPOINTER_TO_UINT(count);
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

void AddPoolProbe(GstElement* capture, int queueSize) {
  GstPad* pad = gst_element_get_static_pad(capture, "src");
  gst_pad_add_probe(pad, GstPadProbeType(GST_PAD_PROBE_TYPE_QUERY_DOWNSTREAM | GST_PAD_PROBE_TYPE_PULL),
                    RaisePoolMinimum, GINT_TO_POINTER(queueSize), nullptr);
  gst_object_unref(pad);
}

void SetCaps(GstElement* filter, GstCaps* caps) {
  g_object_set(filter, "caps", caps, nullptr);
  gst_caps_unref(caps);
}

unsigned FramesASecond(const PictureRate& picture) {
  return static_cast<unsigned>(
      std::max(1, (picture.rateNumerator + picture.rateDenominator / 2) / picture.rateDenominator));
}

/// The chain of one device while it is being built. All elements are the bin's.
class Chain {
 public:
  Chain(GstElement* self, const CaptureSettings& settings) : m_self(self), m_settings(settings) {}

  GstElement* Build() {
    if (!Open()) return nullptr;
    const auto mode = Choose();
    if (!mode) return nullptr;
    GstElement* modeFilter = MakeChild(m_self, "capsfilter");
    m_convert = MakeChild(m_self, "videoconvertscale");
    m_rate = MakeChild(m_self, "videorate");
    m_filter = MakeChild(m_self, "capsfilter");
    if (modeFilter == nullptr || m_convert == nullptr || m_rate == nullptr || m_filter == nullptr) return nullptr;
    SetCaps(modeFilter, CaptureCaps(*mode));
    SetEnd(*mode);
    GstElement* raw = mode->coding == Coding::Raw    ? modeFilter
                      : mode->coding == Coding::Jpeg ? AddJpeg(modeFilter)
                                                     : AddH264(modeFilter, *mode);
    const bool isWhole = raw != nullptr && gst_element_link(m_capture, modeFilter) == TRUE &&
                         gst_element_link_many(raw, m_convert, m_rate, m_filter, nullptr) == TRUE;
    return isWhole ? m_filter : nullptr;
  }

 private:
  bool Open() {
    m_capture = MakeChild(m_self, "v4l2src");
    if (m_capture == nullptr) return false;
    // Left open, a device that does not tell its pixels' shape would get the flattest one that the converter takes.
    g_object_set(m_capture, "device", m_settings.device.c_str(), "pixel-aspect-ratio", "1/1", nullptr);
    AddPoolProbe(m_capture, m_settings.queueSize);
    return gst_element_set_state(m_capture, GST_STATE_READY) != GST_STATE_CHANGE_FAILURE;
  }

  std::optional<CaptureMode> Choose() {
    GstPad* pad = gst_element_get_static_pad(m_capture, "src");
    GstCaps* offered = gst_pad_query_caps(pad, nullptr);
    gst_object_unref(pad);
    if (Offers(offered, JpegCaps)) m_jpegDecoder = FindDecoder(JpegCaps);
    if (Offers(offered, H264Media) && HasElement(H264Parser)) m_h264Decoder = FindDecoder(H264Caps);
    auto mode = ChooseMode(offered, m_settings.picture,
                           {!m_jpegDecoder.empty(), !m_h264Decoder.empty(), !m_settings.isCropped});
    gst_caps_unref(offered);
    const std::string asked = Describe(m_settings.picture);
    if (!mode) {
      GST_ELEMENT_ERROR(m_self, STREAM, FORMAT,
                        ("The camera \"%s\" offers no pictures that can be decoded here.", m_settings.device.c_str()),
                        (nullptr));
      return {};
    }
    const std::string kept = mode->picture == m_settings.picture ? "" : ", which becomes " + asked;
    GST_ELEMENT_INFO(
        m_self, RESOURCE, SETTINGS,
        ("The camera \"%s\" is captured as %s%s.", m_settings.device.c_str(), Describe(*mode).c_str(), kept.c_str()),
        (nullptr));
    return mode;
  }

  /// The mode before all others. Drivers that list none, or one that they do not keep, still get the nearest of the
  /// same coding; a camera's own H.264 is of use in its mode only.
  static GstCaps* CaptureCaps(const CaptureMode& mode) {
    GstCaps* caps = ToCaps(mode);
    if (mode.coding == Coding::Raw) gst_caps_append(caps, gst_caps_new_empty_simple("video/x-raw"));
    if (mode.coding == Coding::Jpeg) gst_caps_append(caps, gst_caps_new_empty_simple(JpegCaps));
    return caps;
  }

  void SetEnd(const CaptureMode& mode) {
    // Otherwise the gap between pipeline start and the first frame, or a standstill of the device, would be filled with
    // copies of a frame: pictures of nothing, seconds of them at once.
    g_object_set(m_rate, "skip-to-first", TRUE, "max-duplication-time", guint64{MostCopied}, nullptr);
    GstCaps* caps = FrameCaps(m_settings.picture);
    // JPEG is in full range; what follows, stills above all, takes pictures to be in video range.
    if (mode.coding == Coding::Jpeg) gst_caps_set_simple(caps, "colorimetry", G_TYPE_STRING, "bt601", nullptr);
    SetCaps(m_filter, caps);
  }

  GstElement* AddJpeg(GstElement* before) {
    GstElement* decoder = MakeChild(m_self, m_jpegDecoder.c_str());
    return decoder != nullptr && gst_element_link(before, decoder) == TRUE ? decoder : nullptr;
  }

  /// Asks a camera that encodes for the grid, whatever of it the driver knows.
  void AskForGrid() {
    const auto interval = static_cast<int>(FramesASecond(m_settings.picture));
    GstStructure* controls =
        gst_structure_new("controls", "h264_i_frame_period", G_TYPE_INT, interval, "video_gop_size", G_TYPE_INT,
                          interval, "video_b_frames", G_TYPE_INT, 0, "repeat_sequence_header", G_TYPE_INT, 1, nullptr);
    if (m_settings.bitrateKbps > 0) {
      gst_structure_set(controls, "video_bitrate", G_TYPE_INT, m_settings.bitrateKbps * 1000, nullptr);
    }
    g_object_set(m_capture, "extra-controls", controls, nullptr);
    gst_structure_free(controls);
  }

  GstElement* AddH264(GstElement* before, const CaptureMode& mode) {
    GstElement* parser = MakeChild(m_self, H264Parser);
    GstElement* units = MakeChild(m_self, "capsfilter");
    GstElement* decoder = MakeChild(m_self, m_h264Decoder.c_str());
    if (parser == nullptr || units == nullptr || decoder == nullptr) return nullptr;
    AskForGrid();
    g_object_set(parser, "config-interval", -1, nullptr);
    SetCaps(units, gst_caps_from_string(H264Caps));
    if (gst_element_link_many(before, parser, units, decoder, nullptr) == FALSE) return nullptr;
    if (mode.picture == m_settings.picture && !m_settings.isCropped) Watch(units, decoder);
    return decoder;
  }

  /// What the probes on the way of units and frames share.
  struct Road {
    UnitRelay relay;
    GstElement* convert;
    GstElement* rate;
    GstElement* filter;
    PictureRate picture;
    bool isJoined = false;
  };

  void Watch(GstElement* units, GstElement* decoder) {
    const unsigned interval = FramesASecond(m_settings.picture);
    auto report = [self = m_self, device = m_settings.device](bool isObeying, const std::string& reason) {
      if (isObeying) {
        GST_ELEMENT_INFO(
            self, RESOURCE, SETTINGS,
            ("The camera \"%s\" encodes with a key frame each second: recorded as it encodes.", device.c_str()),
            (nullptr));
      } else {
        GST_ELEMENT_INFO(self, RESOURCE, SETTINGS,
                         ("The camera \"%s\" does not encode with a key frame each second, %s: encoded anew.",
                          device.c_str(), reason.c_str()),
                         (nullptr));
      }
    };
    const auto road =
        std::shared_ptr<Road>(new Road{{interval, std::move(report)}, m_convert, m_rate, m_filter, m_settings.picture});
    AddProbe(units, road, [](GstPad*, GstPadProbeInfo* info, gpointer shared) noexcept {
      RoadOf(shared).relay.Take(GST_PAD_PROBE_INFO_BUFFER(info));
      return GST_PAD_PROBE_OK;
    });
    AddProbe(decoder, road, [](GstPad*, GstPadProbeInfo* info, gpointer shared) noexcept {
      Road& way = RoadOf(shared);
      if (!way.relay.Passes(GST_BUFFER_PTS(GST_PAD_PROBE_INFO_BUFFER(info)))) return GST_PAD_PROBE_DROP;
      if (!std::exchange(way.isJoined, true) && way.relay.IsObeying()) LeaveOutRate(way);
      return GST_PAD_PROBE_OK;
    });
    AddProbe(m_filter, road, [](GstPad*, GstPadProbeInfo* info, gpointer shared) noexcept {
      GST_PAD_PROBE_INFO_DATA(info) = RoadOf(shared).relay.Attach(GST_PAD_PROBE_INFO_BUFFER(info));
      return GST_PAD_PROBE_OK;
    });
  }

  static Road& RoadOf(gpointer shared) { return **static_cast<std::shared_ptr<Road>*>(shared); }

  static void AddProbe(GstElement* element, const std::shared_ptr<Road>& road, GstPadProbeCallback callback) {
    GstPad* pad = gst_element_get_static_pad(element, "src");
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, callback, new std::shared_ptr<Road>(road),
                      [](gpointer shared) { delete static_cast<std::shared_ptr<Road>*>(shared); });
    gst_object_unref(pad);
  }

  /// A frame that is doubled or dropped would no longer be the one that the camera encoded: its frames keep the
  /// camera's own pace. On the thread that is about to bring the first of them, so nothing is on its way between these
  /// elements.
  static void LeaveOutRate(const Road& road) {
    gst_element_unlink(road.convert, road.rate);
    gst_element_unlink(road.rate, road.filter);
    GstCaps* caps = FrameCaps(road.picture);
    gst_structure_remove_field(gst_caps_get_structure(caps, 0), "framerate");
    SetCaps(road.filter, caps);
    gst_element_link(road.convert, road.filter);
  }

  GstElement* m_self;
  const CaptureSettings& m_settings;
  std::string m_jpegDecoder;
  std::string m_h264Decoder;
  GstElement* m_capture = nullptr;
  GstElement* m_convert = nullptr;
  GstElement* m_rate = nullptr;
  GstElement* m_filter = nullptr;
};

}  // namespace

GstCaps* FrameCaps(const PictureRate& picture) {
  return gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, "I420", "width", G_TYPE_INT, picture.width,
                             "height", G_TYPE_INT, picture.height, "framerate", GST_TYPE_FRACTION,
                             picture.rateNumerator, picture.rateDenominator, "pixel-aspect-ratio", GST_TYPE_FRACTION, 1,
                             1, nullptr);
}

GstElement* BuildCapture(GstElement* self, const CaptureSettings& settings) {
  return Chain(self, settings).Build();
}

}  // namespace SoftImx
