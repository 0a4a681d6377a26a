// The window of a request that waits for its turn.
#include "Tavi/EventCollect/HeldWindow.h"

#include <algorithm>
#include <utility>

#include "Tavi/GstUtil/GstPipelineCbElement.h"
#include "Tavi/Video/GstIpuFrame.h"
#include "Tavi/Video/VideoPipelineElement.h"

namespace Tavi::PipelineCollect {
namespace {

/// How long a camera's next frame is waited for.
constexpr std::chrono::milliseconds StillPatience{250};

}  // namespace

HeldWindow::HeldWindow(const Rings& rings, const Starts& starts, TimePoint until) : m_until(until) {
  for (const auto& [type, start] : starts) {
    const auto found = rings.find(type);
    if (found == rings.end() || !found->second || !start.id) continue;
    m_streams.emplace(type, Stream{found->second, RingReader(start), found->second->GetFps()});
  }
  for (auto& [type, stream] : m_streams) FollowStream(stream);
}

void HeldWindow::FollowStream(Stream& stream) {
  const auto ring = stream.ring.lock();
  if (ring && ring->IsDataAvailable()) stream.reader.Follow(*ring, ring->GetCurrentFrameId());
}

void HeldWindow::HoldPreviews(const PreviewRings& previews) {
  // A young ring has slots that were never written: both cameras begin where the younger one does.
  std::uint64_t back = Ring::NoFrameId;
  for (const auto& ring : previews) {
    if (!ring || !ring->IsDataAvailable()) continue;
    back = std::min({back, std::uint64_t{ring->GetRingSize() / 2}, ring->GetCurrentFrameId()});
  }
  const std::lock_guard lock(m_mutex);
  for (std::size_t camera = 0; camera < previews.size(); ++camera) {
    const auto& ring = previews[camera];
    if (!ring || !ring->IsDataAvailable()) continue;
    const unsigned int pos = ring->SeekRelative(static_cast<int>(ring->GetRingPos()), static_cast<int>(back));
    m_previews[camera] = Stream{ring, RingReader({pos, {}, false}), ring->GetFps()};
    FollowStream(*m_previews[camera]);
  }
}

void HeldWindow::HoldStills() {
  const std::array stills{std::pair(PipelineCollectType::VideoCamera1, PipelineCollectType::ThumbnailCamera1),
                          std::pair(PipelineCollectType::VideoCamera0, PipelineCollectType::ThumbnailCamera0)};
  for (const auto& [stream, still] : stills) {
    std::shared_ptr<Video::VideoPipelineElement> camera;
    {
      const std::lock_guard lock(m_mutex);
      const auto found = m_streams.find(stream);
      if (found == m_streams.end() || m_stills.contains(still)) continue;
      camera = std::dynamic_pointer_cast<Video::VideoPipelineElement>(found->second.ring.lock());
    }
    if (!camera) continue;
    const auto deadline = std::chrono::steady_clock::now() + StillPatience;
    std::shared_ptr<Video::GstIpuFrame> frame(
        camera->GetIpuFrame([deadline] { return std::chrono::steady_clock::now() >= deadline; }));
    const std::lock_guard lock(m_mutex);
    if (frame) m_stills[still] = std::move(frame);
  }
}

void HeldWindow::Follow() {
  const std::lock_guard lock(m_mutex);
  if (std::chrono::steady_clock::now() > m_until) return;
  for (auto& [type, stream] : m_streams) FollowStream(stream);
  for (auto& preview : m_previews) {
    // Once the second half of the clip is there nothing more is wanted.
    const auto ring = preview ? preview->ring.lock() : nullptr;
    if (ring && preview->reader.GetHeld().size() < ring->GetRingSize()) FollowStream(*preview);
  }
}

std::optional<RingReader> HeldWindow::TakePreview(std::size_t camera) {
  const std::lock_guard lock(m_mutex);
  if (!m_previews[camera]) return {};
  std::optional<RingReader> reader(std::move(m_previews[camera]->reader));
  m_previews[camera].reset();
  return reader;
}

std::shared_ptr<Video::GstIpuFrame> HeldWindow::TakeStill(PipelineCollectType type) {
  const std::lock_guard lock(m_mutex);
  const auto still = m_stills.extract(type);
  return still.empty() ? nullptr : still.mapped();
}

std::optional<HeldWindow::HeldStream> HeldWindow::Take(PipelineCollectType type, const std::shared_ptr<Ring>& ring) {
  const std::lock_guard lock(m_mutex);
  auto stream = m_streams.extract(type);
  if (stream.empty()) return {};
  HeldStream held{std::move(stream.mapped().reader), stream.mapped().fps};
  // Acquisition was started anew meanwhile: the stream goes on with the first entry of its new ring.
  if (ring && stream.mapped().ring.lock() != ring) held.reader.Restart({0, 0, true});
  return held;
}

std::optional<RingReader> HeldWindow::Share(PipelineCollectType type) const {
  const std::lock_guard lock(m_mutex);
  const auto found = m_streams.find(type);
  return found == m_streams.end() ? std::nullopt : std::optional(found->second.reader);
}

std::uint64_t HeldWindow::GetBytesBeyondRings() const {
  const std::lock_guard lock(m_mutex);
  std::uint64_t bytes = 0;
  for (const auto& [type, stream] : m_streams) {
    const auto ring = stream.ring.lock();
    const std::uint64_t newest = ring && ring->IsDataAvailable() ? ring->GetCurrentFrameId() : Ring::NoFrameId;
    const std::uint64_t reach = ring ? ring->GetRingSize() : 0;
    for (const auto& [entry, lost] : stream.reader.GetHeld()) {
      if (entry->frameId + reach > newest) break;
      const auto* media = dynamic_cast<const GstUtil::GstPipelineCbElement*>(entry.get());
      if (media != nullptr && GstUtil::IsUsable(media->buffer)) bytes += gst_buffer_get_size(media->buffer);
    }
  }
  return bytes;
}

}  // namespace Tavi::PipelineCollect
