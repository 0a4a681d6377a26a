// Makes the pipeline that an RTSP client plays a camera from.
#include "Fleet/Web/Rtsp/CameraFactory.h"

#include <chrono>
#include <memory>
#include <string>
#include <utility>

#include "Fleet/Web/Live/LiveHub.h"
#include "Fleet/Web/Rtsp/CameraFeed.h"
#include "Kbase/Klog/Logger.h"

namespace Tavi::Web {
namespace {

using GstUtil::GstRef;

/// A key frame comes once a second, and the hub may have to connect before.
constexpr std::chrono::milliseconds PictureWithin{4000};
constexpr std::chrono::milliseconds SoundWithin{500};

/// The payloader finds the parameter sets in the stream itself and repeats them with each key frame, for whoever joins.
constexpr const char* VideoBranch =
    "appsrc name=video is-live=true format=time caps=video/x-h264,stream-format=byte-stream,alignment=au"
    " ! rtph264pay name=pay0 pt=96 config-interval=-1 aggregate-mode=zero-latency";
constexpr const char* SoundBranch =
    " appsrc name=sound is-live=true format=time caps=audio/mpeg,mpegversion=1,layer=3"
    " ! mpegaudioparse ! rtpmpapay name=pay1 pt=14";

struct CameraFactory {
  GstRTSPMediaFactory parent;
  /// The object's data.
  HubAccess* hub;
  LiveStream camera;
};

struct CameraFactoryClass {
  GstRTSPMediaFactoryClass parent;
};

GstRef<GstAppSrc> FindSource(GstElement* bin, const char* name) {
  GstElement* element = gst_bin_get_by_name(GST_BIN(bin), name);
  return GstRef<GstAppSrc>::Adopt(element != nullptr ? GST_APP_SRC(element) : nullptr);
}

/// The object holds `shared` as long as it lives itself.
template <typename T>
void Hold(gpointer object, const char* name, std::shared_ptr<T> shared) {
  const auto release = [](gpointer held) { delete static_cast<std::shared_ptr<T>*>(held); };
  g_object_set_data_full(G_OBJECT(object), name, new std::shared_ptr<T>(std::move(shared)), release);
}

/// On a client's thread. Null tells the client that there is nothing now.
GstElement* CreateElement(GstRTSPMediaFactory* base, const GstRTSPUrl* /*url*/) {
  const auto& factory = *reinterpret_cast<CameraFactory*>(base);
  auto feed = std::make_shared<CameraFeed>(factory.camera);
  if (!factory.hub->AddSink(feed)) return nullptr;
  if (!feed->WaitForPicture(PictureWithin)) {
    Kbase::Klog::Logger::GetInstance().Warning("Rtsp", "a client is refused: the camera delivers nothing");
    return nullptr;
  }
  // A branch that gets nothing would hold up the other.
  std::string description = VideoBranch;
  if (feed->WaitForSound(SoundWithin)) description += SoundBranch;
  GError* error = nullptr;
  GstElement* bin =
      gst_parse_bin_from_description_full(description.c_str(), FALSE, nullptr, GST_PARSE_FLAG_FATAL_ERRORS, &error);
  if (bin == nullptr) {
    Kbase::Klog::Logger::GetInstance().Error("Rtsp", std::string("a client is refused: ") + error->message);
    g_error_free(error);
    return nullptr;
  }
  feed->Attach(FindSource(bin, "video"), FindSource(bin, "sound"));
  // The hub lets go of it with the pipeline.
  Hold(bin, "feed", std::move(feed));
  return bin;
}

void InitClass(gpointer type, gpointer /*data*/) {
  GST_RTSP_MEDIA_FACTORY_CLASS(type)->create_element = CreateElement;
}

/// A client that plays only one of the two leaves the other's source without a way out. That is no error of the media.
gboolean HandleMessage(GstRTSPMedia* media, GstMessage* message) {
  if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR && GST_IS_APP_SRC(GST_MESSAGE_SRC(message))) return TRUE;
  const auto* const parent = static_cast<GstRTSPMediaClass*>(g_type_class_peek(GST_TYPE_RTSP_MEDIA));
  return parent->handle_message(media, message);
}

void InitMediaClass(gpointer type, gpointer /*data*/) {
  GST_RTSP_MEDIA_CLASS(type)->handle_message = HandleMessage;
}

GType GetMediaType() {
  static const GType type =
      g_type_register_static_simple(GST_TYPE_RTSP_MEDIA, "TaviCameraMedia", sizeof(GstRTSPMediaClass), InitMediaClass,
                                    sizeof(GstRTSPMedia), nullptr, static_cast<GTypeFlags>(0));
  return type;
}

GType GetFactoryType() {
  static const GType type =
      g_type_register_static_simple(GST_TYPE_RTSP_MEDIA_FACTORY, "TaviCameraFactory", sizeof(CameraFactoryClass),
                                    InitClass, sizeof(CameraFactory), nullptr, static_cast<GTypeFlags>(0));
  return type;
}

}  // namespace

void HubAccess::Close() {
  const std::lock_guard lock(m_mutex);
  m_hub = nullptr;
}

bool HubAccess::AddSink(const std::shared_ptr<RecordSink>& sink) {
  const std::lock_guard lock(m_mutex);
  if (m_hub != nullptr) m_hub->AddSink(sink);
  return m_hub != nullptr;
}

GstRTSPMediaFactory* MakeCameraFactory(std::shared_ptr<HubAccess> hub, LiveStream camera) {
  auto* const factory = static_cast<CameraFactory*>(g_object_new(GetFactoryType(), nullptr));
  factory->hub = hub.get();
  Hold(factory, "hub", std::move(hub));
  factory->camera = camera;
  GstRTSPMediaFactory* base = &factory->parent;
  // Each has a pipeline of its own, which costs a payloader: it begins with a key frame, and may leave out the sound,
  // which in a shared one would end it for all.
  gst_rtsp_media_factory_set_shared(base, FALSE);
  gst_rtsp_media_factory_set_media_gtype(base, GetMediaType());
  gst_rtsp_media_factory_set_protocols(
      base, static_cast<GstRTSPLowerTrans>(GST_RTSP_LOWER_TRANS_UDP | GST_RTSP_LOWER_TRANS_TCP));
  // What comes live cannot be held back until a client wants it.
  gst_rtsp_media_factory_set_suspend_mode(base, GST_RTSP_SUSPEND_MODE_NONE);
  return base;
}

}  // namespace Tavi::Web
