// The collector of the preview clip: which frames and which sound, and what becomes of the files.
#include "Tavi/EventCollect/PreviewCollect.h"

#include <algorithm>

#include "Kbase/Util/Naming.h"
#include "Ksystem/FileUtils/Kfile.h"
#include "Tavi/Audio/AudioPipelineCollect.h"
#include "Tavi/EventCollect/HeldWindow.h"
#include "Tavi/GstUtil/Log.h"
#include "Tavi/PipelineCollect/CollectFile.h"
#include "Tavi/PipelineCollect/PipelineCollect.h"
#include "Tavi/PipelineCollect/RingTime.h"
#include "Tavi/Video/PreviewPipelineElement.h"
#include "Tavi/Video/VideoPipelineCollect.h"

namespace Tavi::PipelineCollect {
namespace {

using Ksystem::FileUtils::Kfile;
using Milliseconds = std::chrono::milliseconds;

/// In kbit/s.
constexpr unsigned int DefaultBitrate = 256;
/// What a clip's length is taken for when no camera tells.
constexpr int DefaultLength = 6;
constexpr Milliseconds PreviewPoll{20};

int LengthOf(std::initializer_list<const Kbase::Pipeline::IPipelineElement*> rings) {
  for (const auto* ring : rings) {
    if (const auto* preview = dynamic_cast<const Video::PreviewPipelineElement*>(ring)) return preview->GetLength();
  }
  return DefaultLength;
}

/// How many entries the ring holds from before its newest one.
int CountOlder(const Kbase::Pipeline::IPipelineElement& ring) {
  return static_cast<int>(std::min<std::uint64_t>(ring.GetCurrentFrameId(), ring.GetRingSize() - 1));
}

}  // namespace

PreviewCollect::PreviewCollect(Video::PreviewPipelineElement* first, Video::PreviewPipelineElement* second,
                               Audio::AudioPipelineCollect* audio, bool previewFlag, std::int32_t previewParam)
    : CollectBase(PipelineCollectType::Preview, "COLLECT-PREVIEW"),
      m_bitrate(previewParam > 0 ? static_cast<unsigned int>(previewParam) : DefaultBitrate),
      m_elements{first, second},
      m_audio(audio),
      m_enabled(previewFlag),
      m_length(LengthOf({second, first})) {}

PreviewCollect::~PreviewCollect() {
  Stop();
}

void PreviewCollect::Bind(const std::shared_ptr<Ring>& first, const std::shared_ptr<Ring>& second) {
  m_elements = {first.get(), second.get()};
  m_life = {first, second};
  m_bound = true;
  if (first || second) m_length = LengthOf({second.get(), first.get()});
}

std::shared_ptr<PreviewCollect::Ring> PreviewCollect::GetRing(std::size_t camera) const {
  if (m_bound) return m_life[camera].lock();
  return {std::shared_ptr<Ring>(), m_elements[camera]};
}

void PreviewCollect::Init(PipelineCollectConfig& config) {
  CollectBase::Init(config);
  m_startPos.fill(-1);
  m_framesPushed = 0;
  m_probeBuffers = 0;
  m_thumbnailPath.clear();
  m_heldFrames = {};
  m_heldSound.reset();
}

void PreviewCollect::SetHeld(HeldWindow& held) {
  for (std::size_t camera = 0; camera < Cameras; ++camera) m_heldFrames[camera] = held.TakePreview(camera);
  m_heldSound = held.Share(PipelineCollectType::Audio);
}

void PreviewCollect::Reset() {
  CollectBase::Reset();
  m_thumbnailPath.clear();
}

/// A pipeline handle is not among what is copied: it does not outlive RunPipeline.
void PreviewCollect::CopyTo(CollectBase* target) {
  CollectBase::CopyTo(target);
  auto* twin = dynamic_cast<PreviewCollect*>(target);
  if (twin == nullptr) return;
  twin->m_startPos = m_startPos;
  twin->m_framesPushed = m_framesPushed.load();
  twin->m_fps = m_fps;
  twin->m_frameCount = m_frameCount;
  twin->m_thumbnailPath = m_thumbnailPath;
  twin->m_soundDelayNs = m_soundDelayNs;
  twin->m_length = m_length;
}

void PreviewCollect::DeletePath() {
  CollectBase::DeletePath();
  DeleteThumbnailPath();
}

void PreviewCollect::Report(PipelineCollectOutput& output) const {
  CollectBase::Report(output);
  output.previewSeconds = m_length;
  if (m_collected) output.previewStill = m_thumbnailPath;
}

int PreviewCollect::GetClipSeconds() const {
  return m_fps > 0 ? static_cast<int>(m_framesPushed) / m_fps : 0;
}

Milliseconds PreviewCollect::GetInterval() const {
  return Milliseconds(1000 / m_fps);
}

Milliseconds PreviewCollect::GetSilenceLimit() const {
  return std::max<Milliseconds>(PipelineCollect::SilenceLimit, 5 * GetInterval());
}

void PreviewCollect::Collect() {
  m_collected = false;
  if (!m_enabled) return;
  if (!FindStart()) {
    Log::Warning("no camera has preview frames: there is no preview of this event");
    return;
  }
  m_thumbnailPath = Kbase::Util::Replace(m_path, ".h264", ".jpg");
  RunPipeline();
  if (!IsPathAvailable(m_thumbnailPath)) DeleteThumbnailPath();
  m_collected = m_framesPushed > 0 && IsPathAvailable() && !IsSaving();
  if (!m_collected) {
    Discard(IsSaving() ? "power has failed" : "nothing was encoded");
    return;
  }
  const std::string audioPath = m_config.outputDir + "audio_preview_" + m_path.substr(m_path.rfind('/') + 1) + ".mp3";
  if (CollectSound(audioPath)) {
    Mux(audioPath);
  } else {
    BuildMp4();
  }
  Kfile(audioPath, true).Remove();
}

/// False when no camera can take part.
bool PreviewCollect::FindStart() {
  m_soundId.reset();
  if (!FindRings()) return false;
  if (TakeHeld()) return true;
  // A young ring has slots that were never written: both cameras begin where the younger one does.
  int back = m_frameCount / 2;
  for (std::size_t camera = 0; camera < Cameras; ++camera) {
    const auto ring = GetRing(camera);
    if (m_readers[camera] && ring) back = std::min(back, CountOlder(*ring));
  }
  for (std::size_t camera = 0; camera < Cameras; ++camera) {
    const auto ring = GetRing(camera);
    if (!m_readers[camera] || !ring) continue;
    m_startPos[camera] = static_cast<std::int32_t>(ring->SeekRelative(static_cast<int>(ring->GetRingPos()), back));
    m_readers[camera].emplace(RingStart{static_cast<unsigned int>(m_startPos[camera]), {}, false});
    m_readers[camera]->Follow(*ring, ring->GetCurrentFrameId());
  }
  FindSoundStart();
  return true;
}

/// Begins with the frames that were held since the moment, where there are such; a camera without is left out.
bool PreviewCollect::TakeHeld() {
  if (!m_heldFrames[0] && !m_heldFrames[1]) return false;
  for (std::size_t camera = 0; camera < Cameras; ++camera) m_readers[camera] = std::move(m_heldFrames[camera]);
  FindHeldSound();
  return true;
}

/// Passes over the held sound before the first frame of the left, else of the only picture.
void PreviewCollect::FindHeldSound() {
  const auto& frames = m_readers[1] ? m_readers[1] : m_readers[0];
  const auto picture = frames->GetHeld().empty() ? std::nullopt : GetTimestamp(frames->GetHeld().front().entry.get());
  if (!m_heldSound || !picture) return m_heldSound.reset();
  while (!m_heldSound->GetHeld().empty()) {
    const auto sound = GetTimestamp(m_heldSound->GetHeld().front().entry.get());
    if (sound && *sound >= *picture) {
      m_soundDelayNs = static_cast<std::int64_t>(*sound - *picture);
      return;
    }
    m_heldSound->Next();
  }
  m_heldSound.reset();
}

/// Finds the cameras that take part, the clip's rate and its number of frames.
bool PreviewCollect::FindRings() {
  m_fps = 0;
  m_frameCount = 0;
  for (std::size_t camera = 0; camera < Cameras; ++camera) {
    m_readers[camera].reset();
    const auto ring = GetRing(camera);
    if (!ring || !ring->IsDataAvailable() || GetAge(*ring) >= PipelineCollect::SilenceLimit) continue;
    const int fps = static_cast<int>(ring->GetFps());
    if (fps <= 0) continue;
    m_fps = fps;
    m_frameCount = static_cast<int>(ring->GetRingSize());
    m_readers[camera].emplace(RingStart{});
  }
  return m_fps > 0;
}

/// Finds the entry of the sound's ring that belongs to the first frame of the left, else of the only picture.
void PreviewCollect::FindSoundStart() {
  const std::size_t camera = m_readers[1] ? 1 : 0;
  const auto reference = GetRing(camera);
  const auto ring = m_audio != nullptr ? m_audio->GetRing() : nullptr;
  if (!reference || !ring || !ring->IsDataAvailable()) return;
  const int start = m_startPos[camera];
  // The search begins half a clip back, or with the oldest entry of a young ring.
  const float half = static_cast<float>(m_frameCount) / 2.0F / static_cast<float>(m_fps) * ring->GetFps();
  const int back = std::min(static_cast<int>(half), CountOlder(*ring));
  // Before the first frame of a young ring there is none: then what lies before the next one is good enough.
  const bool found = m_audio->SyncWithPipeline(reference.get(), start, back, m_soundPos) ||
                     m_audio->SyncWithPipeline(reference.get(), start + 1, back, m_soundPos);
  const auto entry = found ? ring->GetElementAt(m_soundPos) : nullptr;
  if (!entry) return;
  m_soundId = entry->frameId;
  std::uint64_t picture = 0;
  std::uint64_t sound = 0;
  const bool known = PipelineCollect::GetPipelineTimestamp(reference.get(), start, picture) &&
                     PipelineCollect::GetPipelineTimestamp(ring.get(), static_cast<int>(m_soundPos), sound);
  m_soundDelayNs = known ? static_cast<std::int64_t>(sound - picture) : 0;
}

/// Writes the clip's seconds of sound; false when there is none.
bool PreviewCollect::CollectSound(const std::string& path) {
  if (m_heldSound) return CollectHeldSound(path);
  if (!m_soundId) return false;
  const int seconds = WaitForSound(GetClipSeconds());
  if (seconds <= 0) return false;
  m_audio->CollectPreview(path, m_soundPos, seconds);
  return IsPathAvailable(path);
}

/// The same from the sound that was held since the moment, and what has come since.
bool PreviewCollect::CollectHeldSound(const std::string& path) {
  const auto deadline = std::chrono::steady_clock::now() + PipelineCollect::SilenceLimit;
  CollectFile file(path);
  const auto ring = m_audio != nullptr ? m_audio->GetRing() : nullptr;
  auto count = ring ? static_cast<int>(static_cast<float>(GetClipSeconds()) * ring->GetFps()) : 0;
  while (count > 0 && !ShouldStop()) {
    const auto entry = m_heldSound->Next();
    if (entry) {
      if (!file.Append([&](FILE* stream) { return m_audio->Write(stream, entry.get()); })) break;
      --count;
      continue;
    }
    if (std::chrono::steady_clock::now() >= deadline) break;
    WaitForCancel(PreviewPoll);
    m_heldSound->Follow(*ring, ring->GetCurrentFrameId());
  }
  file.Close(false);
  return IsPathAvailable(path);
}

/// Waits until so many seconds of sound are there, within bounds; what there is of them then, in whole seconds.
int PreviewCollect::WaitForSound(int seconds) {
  const auto deadline = std::chrono::steady_clock::now() + PipelineCollect::SilenceLimit;
  for (;;) {
    const auto ring = m_audio->GetRing();
    const auto first = ring ? ring->GetElementAt(m_soundPos) : nullptr;
    if (!first || first->frameId != *m_soundId) return 0;
    const auto there = static_cast<float>(ring->GetCurrentFrameId() - *m_soundId + 1);
    const int thereSeconds = ring->GetFps() > 0.0F ? static_cast<int>(there / ring->GetFps()) : 0;
    const bool complete = there >= static_cast<float>(seconds) * ring->GetFps();
    if (complete || ShouldStop() || std::chrono::steady_clock::now() >= deadline) {
      return complete ? seconds : thereSeconds;
    }
    WaitForCancel(PreviewPoll);
  }
}

void PreviewCollect::Mux(const std::string& audioPath) {
  if (!m_collected) return;
  std::string mp4Path;
  const auto fps = static_cast<float>(m_fps);
  Replace(Video::VideoPipelineCollect::Mux(m_path, audioPath, fps, mp4Path, m_soundDelayNs) ||
              Video::VideoPipelineCollect::BuildMp4(m_path, fps, mp4Path),
          mp4Path);
}

void PreviewCollect::BuildMp4() {
  if (!m_collected) return;
  std::string mp4Path;
  Replace(Video::VideoPipelineCollect::BuildMp4(m_path, static_cast<float>(m_fps), mp4Path), mp4Path);
}

void PreviewCollect::Replace(bool muxed, const std::string& mp4Path) {
  if (muxed) {
    Kfile(m_path, true).Remove();
    m_path = mp4Path;
  } else {
    Discard("its MP4 could not be written");
  }
}

void PreviewCollect::Discard(const char* reason) {
  Log::Error("there is no preview " + m_path + ": " + reason);
  DeletePath();
}

void PreviewCollect::DeleteThumbnailPath() {
  if (!m_thumbnailPath.empty()) Kfile(m_thumbnailPath, true).Remove();
  m_thumbnailPath.clear();
}

}  // namespace Tavi::PipelineCollect
