// Finishes one event that a power failure has interrupted.
#include "Tavi/RecoveryCollect/EventRecovery.h"

#include "Ksystem/FileUtils/Kfile.h"
#include "Tavi/GstUtil/Log.h"
#include "Tavi/RecoveryCollect/EventFileName.h"
#include "Tavi/RecoveryCollect/MoveFile.h"
#include "Tavi/Video/VideoPipelineCollect.h"

namespace Tavi::RecoveryCollect {

using Ksystem::FileUtils::Kfile;
using PipelineCollect::PipelineCollectType;
using Video::VideoPipelineCollect;

EventRecovery::EventRecovery(const RecoveryCollectInput& input, const WorkDirectory& work, const EventSources& event)
    : m_input(input), m_work(work), m_event(event) {}

bool EventRecovery::Recover() {
  std::size_t recovered = 0;
  for (const auto& [type, source] : m_event.paths) {
    if (RecoverFile(type, source)) {
      ++recovered;
    } else {
      Log::Error("cannot recover " + source + ": it stays where it is");
    }
  }
  Log::Info("recovered " + std::to_string(recovered) + " of " + std::to_string(m_event.paths.size()) +
            " files of the interrupted event " + m_event.name);
  return recovered == m_event.paths.size();
}

bool EventRecovery::RecoverFile(PipelineCollectType type, const std::string& source) const {
  const auto name = ParseBackupName(source.substr(m_input.restoreDir.size()));
  if (name->isHalf) {
    Log::Warning(source + " was not copied to its end: what it holds is recovered");
  }
  return IsCameraVideo(type) && !name->isMuxed ? RecoverVideo(type, source)
                                               : MoveFile(source, GetProductPath(type), m_work.GetAsidePath());
}

bool EventRecovery::RecoverVideo(PipelineCollectType type, const std::string& source) const {
  const float fps = type == PipelineCollectType::VideoCamera1 ? m_input.camera0Fps : m_input.camera1Fps;
  std::string mp4Path;
  if (!Mux(source, fps, mp4Path)) return false;
  Kfile(source).CopyTimesTo(mp4Path);
  return MoveFile(mp4Path, GetProductPath(type), m_work.GetAsidePath()) && Kfile(source).Remove();
}

bool EventRecovery::Mux(const std::string& source, float fps, std::string& mp4Path) const {
  // Or the MP4 before this one would be taken for its product.
  if (!m_work.Clear() || !m_work.LinkVideo(source)) return false;
  const std::string sound = FindSound();
  if (!sound.empty()) {
    // How much later than the picture the sound begins is not in the files.
    if (m_work.LinkAudio(sound) &&
        VideoPipelineCollect::Mux(m_work.GetVideoPath(), m_work.GetAudioPath(), fps, mp4Path)) {
      return true;
    }
    Log::Warning(source + " cannot be muxed with the sound of " + sound + ": trying without");
  }
  return VideoPipelineCollect::BuildMp4(m_work.GetVideoPath(), fps, mp4Path);
}

/// The event's sound wherever an interrupted run has left it; empty when there is none.
std::string EventRecovery::FindSound() const {
  const auto source = m_event.paths.find(PipelineCollectType::Audio);
  if (source != m_event.paths.end()) return source->second;
  const std::string product = GetProductPath(PipelineCollectType::Audio);
  return PipelineCollect::CollectBase::IsPathAvailable(product) ? product : "";
}

std::string EventRecovery::GetProductPath(PipelineCollectType type) const {
  return m_input.outputDir + BuildProductName(type, m_event.name);
}

}  // namespace Tavi::RecoveryCollect
