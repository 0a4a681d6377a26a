// Makes the pipeline that an RTSP client plays a camera from.
#pragma once

#include <gst/rtsp-server/rtsp-media-factory.h>

#include <memory>
#include <mutex>

#include "Fleet/Web/Live/RecordSink.h"

namespace Tavi::Web {

class LiveHub;

/// The way to the hub for what GStreamer's threads may call after the server has ended. Thread-safe.
class HubAccess {
 public:
  explicit HubAccess(LiveHub& hub) : m_hub(&hub) {}
  /// From then on the hub is not used any more.
  void Close();
  /// False after Close.
  bool AddSink(const std::shared_ptr<RecordSink>& sink);

 private:
  std::mutex m_mutex;
  LiveHub* m_hub;
};

/// A reference for the caller. While the camera does not deliver, clients are told that the service is unavailable.
GstRTSPMediaFactory* MakeCameraFactory(std::shared_ptr<HubAccess> hub, LiveStream camera);

}  // namespace Tavi::Web
