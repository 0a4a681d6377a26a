// The window of a request that waits for its turn.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include "Kbase/Pipeline/IPipelineElement.h"
#include "Tavi/EventCollect/StartSync.h"
#include "Tavi/PipelineCollect/PipelineCollectTypes.h"
#include "Tavi/PipelineCollect/RingReader.h"

namespace Tavi::Video {
class GstIpuFrame;
}

namespace Tavi::PipelineCollect {

/// References to the entries of one event's window, from the moment of the event on: whatever the rings overwrite until
/// the event's turn comes, it is still there. Entries are shared with the rings and with other windows; what a window
/// costs is what has left the rings, at most its own length of all streams.
///
/// Thread-safe. Follow must be called every few seconds until the window is taken; it waits for nothing. HoldStills is
/// for the same thread, once.
class HeldWindow {
 public:
  using Ring = Kbase::Pipeline::IPipelineElement;
  using TimePoint = std::chrono::steady_clock::time_point;

  /// The preview rings of camera 0 and camera 1; null where there is none.
  using PreviewRings = std::array<std::shared_ptr<Ring>, 2>;

  /// Takes what the rings hold from `starts` on. `until`: what comes later is not the window's.
  HeldWindow(const Rings& rings, const Starts& starts, TimePoint until);
  /// Takes the preview frames of the moment, too: half a clip back, and as many to come.
  void HoldPreviews(const PreviewRings& previews);
  /// Takes each camera's newest raw frame. Waits for it for some frames' time at most.
  void HoldStills();

  /// Takes what has come since.
  void Follow();
  /// One stream of the window.
  struct HeldStream {
    RingReader reader;
    /// Entries a second of its ring.
    float fps = 0.0F;
  };

  /// The stream's entries so far, handed over; `ring` is where it goes on, which may be another than at the moment of
  /// the event, or none. Nothing when there was no such stream.
  std::optional<HeldStream> Take(PipelineCollectType type, const std::shared_ptr<Ring>& ring);
  /// A copy of the same.
  [[nodiscard]] std::optional<RingReader> Share(PipelineCollectType type) const;
  /// The preview frames of that camera since half a clip before the moment; nothing when there were none.
  std::optional<RingReader> TakePreview(std::size_t camera);
  /// The camera's raw frame, by the type of its still; null when none was held.
  std::shared_ptr<Video::GstIpuFrame> TakeStill(PipelineCollectType type);
  /// Bytes of the entries that only this window, or another, keeps: those that the rings have overwritten.
  [[nodiscard]] std::uint64_t GetBytesBeyondRings() const;

 private:
  struct Stream {
    std::weak_ptr<Ring> ring;
    RingReader reader;
    float fps = 0.0F;
  };

  static void FollowStream(Stream& stream);

  const TimePoint m_until;
  mutable std::mutex m_mutex;
  std::map<PipelineCollectType, Stream> m_streams;
  std::array<std::optional<Stream>, 2> m_previews;
  std::map<PipelineCollectType, std::shared_ptr<Video::GstIpuFrame>> m_stills;
};

}  // namespace Tavi::PipelineCollect
