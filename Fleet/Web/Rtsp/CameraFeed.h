// The records of one camera and the sound, into one media pipeline.
#pragma once

#include <gst/app/gstappsrc.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "Fleet/Web/Live/RecordSink.h"
#include "Tavi/GstUtil/GstRef.h"

namespace Tavi::Web {

/// First tells what there is to be played, then puts it into the elements of a pipeline, beginning at a key frame, with
/// both on the pipeline's time. What a pipeline does not take in time is left out up to the next key frame.
/// Thread-safe.
class CameraFeed : public RecordSink {
 public:
  /// A pipeline that holds so much has stopped taking any.
  static constexpr std::uint64_t MostWaitingBytes = 4 * 1024 * 1024;

  explicit CameraFeed(LiveStream camera) : m_camera(camera) {}

  /// Waits until the camera has delivered a key frame; false when it has not within `patience`.
  bool WaitForPicture(std::chrono::milliseconds patience);
  /// Waits for sound, which may not be there at all.
  bool WaitForSound(std::chrono::milliseconds patience);
  /// `sound` may be null.
  void Attach(GstUtil::GstRef<GstAppSrc> video, GstUtil::GstRef<GstAppSrc> sound);

  void Take(const std::shared_ptr<const LiveUnit>& unit) noexcept override;

 private:
  bool Begin(const LiveUnit& unit);
  void Push(GstAppSrc* target, const std::shared_ptr<const LiveUnit>& unit);

  const LiveStream m_camera;
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_hasPicture = false;
  bool m_hasSound = false;
  GstUtil::GstRef<GstAppSrc> m_video;
  GstUtil::GstRef<GstAppSrc> m_sound;
  /// What makes the pipeline's time of the streams'; empty before the first key frame.
  std::optional<std::int64_t> m_offsetNs;
  bool m_awaitsKey = true;
};

}  // namespace Tavi::Web
