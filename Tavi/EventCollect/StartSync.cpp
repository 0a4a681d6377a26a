// Where the window of each stream begins in its ring.
#include "Tavi/EventCollect/StartSync.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <string>

#include "Tavi/GstUtil/Log.h"
#include "Tavi/PipelineCollect/KeyFrameGrid.h"
#include "Tavi/PipelineCollect/PipelineCollect.h"
#include "Tavi/PipelineCollect/RingTime.h"

namespace Tavi::PipelineCollect {

namespace {

constexpr std::array Cameras{PipelineCollectType::VideoCamera1, PipelineCollectType::VideoCamera0};
constexpr std::array Sensors{PipelineCollectType::Gps, PipelineCollectType::Acc, PipelineCollectType::Other};

/// How many entries the seconds are, the product in single precision.
int CountEntries(Kbase::Pipeline::IPipelineElement& ring, int seconds) {
  return static_cast<int>(static_cast<float>(seconds) * ring.GetFps());
}

/// False for a source that has delivered nothing, or nothing for a while.
bool IsAlive(const Kbase::Pipeline::IPipelineElement& ring) {
  return ring.IsDataAvailable() && GetAge(ring) < PipelineCollect::SilenceLimit;
}

/// The oldest entry of the ring that the producer will not overwrite next, as a distance from the newest one.
int GetOldest(const Kbase::Pipeline::IPipelineElement& ring) {
  const auto reach = std::max<std::int64_t>(std::int64_t{ring.GetRingSize()} - 2, 0);
  return static_cast<int>(std::min<std::uint64_t>(ring.GetCurrentFrameId(), static_cast<std::uint64_t>(reach)));
}

}  // namespace

Starts StartSync::Find() {
  m_starts.clear();
  SeekCamera(PipelineCollectType::VideoCamera0, "camera 0");
  SeekCamera(PipelineCollectType::VideoCamera1, "camera 1");
  AlignCamera0ToCamera1();
  if (m_starts.empty()) Log::Info("No video available");
  for (const auto type : Sensors) SeekSensor(type);
  AlignAudio();
  if (m_care.cover) CoverAll();
  return m_starts;
}

StartSync::Ring* StartSync::Get(PipelineCollectType type) const {
  const auto found = m_rings.find(type);
  return found == m_rings.end() ? nullptr : found->second.get();
}

void StartSync::SetStart(PipelineCollectType type, const Ring& ring, unsigned int pos) {
  const auto entry = ring.GetElementAt(pos);
  m_starts[type] = {pos, entry ? std::optional(entry->frameId) : std::nullopt, false};
}

void StartSync::SeekCamera(PipelineCollectType type, const char* name) {
  Ring* ring = Get(type);
  if (ring == nullptr) return;
  Log::Info(fmt::format("Current frame {}: {}", name,
                        ring->IsDataAvailable() ? std::to_string(ring->GetCurrentFrameId()) : "none"));
  const int fps = static_cast<int>(ring->GetFps());
  SetStart(type, *ring, ring->SeekBackKeyframe(fps * m_seconds, fps));
}

void StartSync::AlignCamera0ToCamera1() {
  Ring* camera0 = Get(PipelineCollectType::VideoCamera0);
  const Ring* camera1 = Get(PipelineCollectType::VideoCamera1);
  if (camera0 == nullptr || camera1 == nullptr || !IsAlive(*camera1)) return;
  const int fps = static_cast<int>(camera0->GetFps());
  const auto reference = static_cast<int>(m_starts.at(PipelineCollectType::VideoCamera1).pos);
  unsigned int pos = 0;
  if (!FindSameTime(*camera0, *camera1, reference, fps * m_seconds, pos)) return;
  SetStart(PipelineCollectType::VideoCamera0, *camera0, AlignToKeyFrame(*camera0, pos, static_cast<unsigned int>(fps)));
}

void StartSync::SeekSensor(PipelineCollectType type) {
  if (Ring* ring = Get(type)) SetStart(type, *ring, ring->SeekBackKeyframe(CountEntries(*ring, m_seconds), 1));
}

/// Camera 1, else camera 0, as long as it delivers.
StartSync::Ring* StartSync::FindReference(PipelineCollectType& type) const {
  for (const auto camera : Cameras) {
    Ring* ring = Get(camera);
    if (ring == nullptr || !IsAlive(*ring)) continue;
    type = camera;
    return ring;
  }
  return nullptr;
}

void StartSync::AlignAudio() {
  Ring* audio = Get(PipelineCollectType::Audio);
  if (audio == nullptr || (Get(Cameras[0]) == nullptr && Get(Cameras[1]) == nullptr)) return;
  const int count = CountEntries(*audio, m_seconds);
  PipelineCollectType camera{};
  const Ring* reference = FindReference(camera);
  unsigned int pos = 0;
  const bool found =
      reference != nullptr && FindSameTime(*audio, *reference, static_cast<int>(m_starts.at(camera).pos), count, pos);
  SetStart(PipelineCollectType::Audio, *audio, found ? pos : audio->SeekBackKeyframe(count, 1));
}

void StartSync::CoverAll() {
  const TimePoint asked = m_care.moment.value_or(std::chrono::steady_clock::now()) - std::chrono::seconds(m_seconds);
  TimePoint first = asked;
  for (const auto type : Cameras) {
    if (const Ring* ring = Get(type)) first = std::min(first, Cover(type, *ring, asked));
  }
  if (const Ring* ring = Get(PipelineCollectType::Audio)) Cover(PipelineCollectType::Audio, *ring, first);
  for (const auto type : Sensors) {
    if (const Ring* ring = Get(type)) Cover(type, *ring, asked);
  }
}

/// Moves the stream's start back until it is a key frame no later than `from`, as far as the ring reaches. When that
/// entry was made; `from` where the window begins with what is still to come.
StartSync::TimePoint StartSync::Cover(PipelineCollectType type, const Ring& ring, TimePoint from) {
  const auto present = static_cast<int>(ring.GetRingPos());
  const auto newest = ring.RetrieveCurrent();
  EntryClock clock(type);
  clock.Learn(ring);
  if (!newest || clock.TimeOf(newest.get()) + PipelineCollect::SilenceLimit < from) {
    m_starts[type] = {ring.SeekRelative(present, -1), newest ? newest->frameId + 1 : 0, true};
    return from;
  }
  const auto found = m_starts.find(type);
  // No later than the described one, where there is one.
  auto latest = std::numeric_limits<std::uint64_t>::max();
  if (found != m_starts.end() && found->second.id) latest = *found->second.id;
  TimePoint at = clock.TimeOf(newest.get());
  for (int back = 0; back <= GetOldest(ring); ++back) {
    const unsigned int pos = ring.SeekRelative(present, back);
    const auto entry = ring.GetElementAt(pos);
    if (!entry || entry->frameId > newest->frameId) break;
    if (!entry->IsKeyFrame()) continue;
    m_starts[type] = {pos, entry->frameId, true};
    at = clock.TimeOf(entry.get());
    if (at <= from && entry->frameId <= latest) break;
  }
  return at;
}

}  // namespace Tavi::PipelineCollect
