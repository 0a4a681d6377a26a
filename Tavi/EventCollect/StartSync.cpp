// Where the window of each stream begins in its ring.
#include "Tavi/EventCollect/StartSync.h"

#include <fmt/format.h>

#include "Tavi/GstUtil/Log.h"
#include "Tavi/PipelineCollect/KeyFrameGrid.h"
#include "Tavi/PipelineCollect/RingTime.h"

namespace Tavi::PipelineCollect {

namespace {

/// How many entries the seconds are, the product in single precision.
int CountEntries(Kbase::Pipeline::IPipelineElement& ring, int seconds) {
  return static_cast<int>(static_cast<float>(seconds) * ring.GetFps());
}

}  // namespace

StartPositions StartSync::Find() {
  m_starts.clear();
  SeekCamera(PipelineCollectType::VideoCamera0, "camera 0");
  SeekCamera(PipelineCollectType::VideoCamera1, "camera 1");
  AlignCamera0ToCamera1();
  if (m_starts.empty()) Log::Info("No video available");
  for (const auto type : {PipelineCollectType::Gps, PipelineCollectType::Acc, PipelineCollectType::Other}) {
    SeekSensor(type);
  }
  AlignAudio();
  return m_starts;
}

StartSync::Ring* StartSync::Get(PipelineCollectType type) const {
  const auto found = m_rings.find(type);
  return found == m_rings.end() ? nullptr : found->second.get();
}

void StartSync::SeekCamera(PipelineCollectType type, const char* name) {
  Ring* ring = Get(type);
  if (ring == nullptr) return;
  Log::Info(fmt::format("Current frame {}: {}", name, ring->GetCurrentFrameId()));
  const int fps = static_cast<int>(ring->GetFps());
  m_starts[type] = ring->SeekBackKeyframe(fps * m_seconds, fps);
}

void StartSync::AlignCamera0ToCamera1() {
  Ring* camera0 = Get(PipelineCollectType::VideoCamera0);
  const Ring* camera1 = Get(PipelineCollectType::VideoCamera1);
  if (camera0 == nullptr || camera1 == nullptr) return;
  const int fps = static_cast<int>(camera0->GetFps());
  const auto reference = static_cast<int>(m_starts.at(PipelineCollectType::VideoCamera1));
  unsigned int pos = 0;
  if (!FindSameTime(*camera0, *camera1, reference, fps * m_seconds, pos)) return;
  m_starts[PipelineCollectType::VideoCamera0] = AlignToKeyFrame(*camera0, pos, static_cast<unsigned int>(fps));
}

void StartSync::SeekSensor(PipelineCollectType type) {
  if (Ring* ring = Get(type)) m_starts[type] = ring->SeekBackKeyframe(CountEntries(*ring, m_seconds), 1);
}

void StartSync::AlignAudio() {
  Ring* audio = Get(PipelineCollectType::Audio);
  const auto camera = Get(PipelineCollectType::VideoCamera1) != nullptr ? PipelineCollectType::VideoCamera1
                                                                        : PipelineCollectType::VideoCamera0;
  const Ring* reference = Get(camera);
  if (audio == nullptr || reference == nullptr) return;
  unsigned int pos = 0;
  if (FindSameTime(*audio, *reference, static_cast<int>(m_starts.at(camera)), CountEntries(*audio, m_seconds), pos)) {
    m_starts[PipelineCollectType::Audio] = pos;
  }
}

}  // namespace Tavi::PipelineCollect
