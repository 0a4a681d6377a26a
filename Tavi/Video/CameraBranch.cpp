// The elements of one camera's branch, made, set, added and linked.
#include "Tavi/Video/CameraBranch.h"

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "Tavi/GstUtil/BranchParts.h"
#include "Tavi/GstUtil/Log.h"
#include "Tavi/GstUtil/StateTrial.h"

namespace Tavi::Video {

using GstUtil::LinkChain;

namespace {

constexpr int CaptureQueueSize = 20;
/// The part of a 1280x720 frame that the cameras' lens shows, scaled back to the full size after the crop.
constexpr int CropX = 72;
constexpr int CropY = 8;
constexpr int CropWidth = 1176;
constexpr int CropHeight = 664;
constexpr int CroppedFrameWidth = 1280;
constexpr int CroppedFrameHeight = 720;
constexpr int PreviewMaxRate = 30;
constexpr std::chrono::seconds ViewerPatience{10};

void SetRawCaps(GstElement* filter, int width, int height) {
  GstCaps* caps = gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, "I420", "width", G_TYPE_INT, width,
                                      "height", G_TYPE_INT, height, nullptr);
  g_object_set(filter, "caps", caps, nullptr);
  gst_caps_unref(caps);
}

bool HasProperty(GstElement* element, const char* name) {
  return g_object_class_find_property(G_OBJECT_GET_CLASS(element), name) != nullptr;
}

void LinkTee(GstElement* tee, GstElement* queue) {
  GstPad* source = gst_element_request_pad_simple(tee, "src_%u");
  GstPad* sink = gst_element_get_static_pad(queue, "sink");
  gst_pad_link(source, sink);
  gst_object_unref(sink);
  gst_object_unref(source);
}

/// One branch while it is being built: first every element is made, then all are set, added and linked.
class Builder {
 public:
  explicit Builder(const VideoConfig& config) : m_config(config) {}

  CameraBranch Build(GstBin* bin) {
    MakeAll();
    if (!m_parts.IsComplete()) return {};
    SetAll();
    std::vector<GstElement*> all{m_source,      m_crop,         m_cropCaps,    m_tee,        m_rawQueue,
                                 m_rawSink,     m_encoderQueue, m_encoder,     m_streamTee,  m_recordQueue,
                                 m_encodedSink, m_networkQueue, m_gdp,         m_server,     m_previewQueue,
                                 m_rate,        m_scale,        m_previewCaps, m_previewSink};
    std::erase(all, nullptr);
    for (GstElement* element : all) gst_bin_add(bin, element);
    LinkAll();
    return {m_source, m_rawSink, m_encodedSink, m_previewQueue, m_previewSink, std::move(all)};
  }

 private:
  void MakeAll() {
    m_source = m_parts.Make("imxv4l2videosrc");
    if (m_config.cropEnabled) {
      m_crop = m_parts.Make("imxipuvideotransform");
      m_cropCaps = m_parts.Make("capsfilter");
    }
    m_rawSink = m_parts.Make("appsink");
    m_encodedSink = m_parts.Make("appsink");
    m_encoder = m_parts.Make("imxvpuenc_h264");
    m_tee = m_parts.Make("tee");
    m_rawQueue = m_parts.Make("queue");
    m_encoderQueue = m_parts.Make("queue");
    m_hasStream = m_config.streamEnabled && MakeStream();
    m_hasPreview = m_config.previewEnabled && MakePreview();
  }

  /// A port that somebody else has would be an error on the pipeline's bus, which ends the watch over the cameras.
  bool MakeStream() {
    if (!m_parts.MakeLeg("live stream", {{"gdppay", &m_gdp},
                                         {"tcpserversink", &m_server},
                                         {"tee", &m_streamTee},
                                         {"queue", &m_recordQueue},
                                         {"queue", &m_networkQueue}})) {
      return false;
    }
    // A viewer that does not read is let go before it costs memory: its frames are in the ring anyway.
    // A camera without a picture must not keep its pipeline from playing.
    g_object_set(m_server, "async", FALSE, "host", "0.0.0.0", "port", m_config.streamPort, "units-max",
                 gint64{m_config.fps} * ViewerPatience.count(), "timeout",
                 guint64{std::chrono::nanoseconds(ViewerPatience).count()}, nullptr);
    // It listens from PAUSED on.
    const std::string problem = GstUtil::TryState(m_server, GST_STATE_PAUSED);
    gst_element_set_state(m_server, GST_STATE_NULL);
    if (problem.empty()) return true;
    Log::Warning("there is no live stream on port " + std::to_string(m_config.streamPort) + ": " + problem);
    m_gdp = m_server = m_streamTee = m_recordQueue = m_networkQueue = nullptr;
    return false;
  }

  bool MakePreview() {
    return m_parts.MakeLeg("preview", {{"videorate", &m_rate},
                                       {"capsfilter", &m_previewCaps},
                                       {"imxipuvideotransform", &m_scale},
                                       {"appsink", &m_previewSink},
                                       {"queue", &m_previewQueue}});
  }

  void SetAll() {
    g_object_set(m_source, "device", m_config.device.c_str(), "fps-n", m_config.fps, "queue-size", CaptureQueueSize,
                 nullptr);
    // Or each tells with every frame that it was empty and is not any more, to nobody.
    for (GstElement* queue : {m_rawQueue, m_encoderQueue, m_recordQueue, m_networkQueue, m_previewQueue}) {
      if (queue != nullptr) g_object_set(queue, "silent", TRUE, nullptr);
    }
    // The rectangle below is one of a picture of the default size.
    if (!m_config.cropEnabled && HasProperty(m_source, "width") && HasProperty(m_source, "height")) {
      g_object_set(m_source, "width", m_config.width, "height", m_config.height, nullptr);
    }
    // Some cameras encode by themselves.
    if (HasProperty(m_source, "bitrate")) g_object_set(m_source, "bitrate", m_config.bitrate, nullptr);
    if (m_config.cropEnabled) {
      // The source asks for the crop, the transform carries it out.
      g_object_set(m_source, "crop-meta-x", CropX, "crop-meta-y", CropY, "crop-meta-width", CropWidth,
                   "crop-meta-height", CropHeight, nullptr);
      SetRawCaps(m_cropCaps, CroppedFrameWidth, CroppedFrameHeight);
    }
    // One IDR frame a second, on which the collectors' start positions rely.
    g_object_set(m_encoder, "bitrate", m_config.bitrate, "idr-interval", m_config.fps, "gop-size", m_config.fps,
                 nullptr);
    if (HasProperty(m_encoder, "codec")) g_object_set(m_encoder, "codec", m_config.encoder.c_str(), nullptr);
    if (m_hasPreview) {
      g_object_set(m_rate, "max-rate", PreviewMaxRate, "drop-only", TRUE, nullptr);
      SetRawCaps(m_previewCaps, m_config.previewWidth, m_config.previewHeight);
    }
  }

  void LinkAll() {
    if (m_config.cropEnabled) {
      LinkChain({m_source, m_crop, m_cropCaps, m_tee});
    } else {
      LinkChain({m_source, m_tee});
    }
    LinkChain({m_rawQueue, m_rawSink});
    if (m_hasStream) {
      LinkChain({m_encoderQueue, m_encoder, m_streamTee});
      LinkChain({m_recordQueue, m_encodedSink});
      LinkChain({m_networkQueue, m_gdp, m_server});
    } else {
      LinkChain({m_encoderQueue, m_encoder, m_encodedSink});
    }
    if (m_hasPreview) LinkChain({m_previewQueue, m_rate, m_scale, m_previewCaps, m_previewSink});

    LinkTee(m_tee, m_rawQueue);
    LinkTee(m_tee, m_encoderQueue);
    if (m_hasPreview) LinkTee(m_tee, m_previewQueue);
    if (m_hasStream) {
      LinkTee(m_streamTee, m_recordQueue);
      LinkTee(m_streamTee, m_networkQueue);
    }
  }

  const VideoConfig& m_config;
  bool m_hasStream = false;
  bool m_hasPreview = false;
  GstUtil::BranchParts m_parts;
  GstElement* m_source = nullptr;
  GstElement* m_crop = nullptr;
  GstElement* m_cropCaps = nullptr;
  GstElement* m_rawSink = nullptr;
  GstElement* m_encodedSink = nullptr;
  GstElement* m_previewSink = nullptr;
  GstElement* m_gdp = nullptr;
  GstElement* m_server = nullptr;
  GstElement* m_encoder = nullptr;
  GstElement* m_rate = nullptr;
  GstElement* m_previewCaps = nullptr;
  GstElement* m_scale = nullptr;
  GstElement* m_tee = nullptr;
  GstElement* m_rawQueue = nullptr;
  GstElement* m_encoderQueue = nullptr;
  GstElement* m_streamTee = nullptr;
  GstElement* m_recordQueue = nullptr;
  GstElement* m_networkQueue = nullptr;
  GstElement* m_previewQueue = nullptr;
};

}  // namespace

CameraBranch CameraBranch::Build(GstBin* bin, const VideoConfig& config) {
  return Builder(config).Build(bin);
}

}  // namespace Tavi::Video
