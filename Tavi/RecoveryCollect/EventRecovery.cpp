// Finishes one event that a power failure has interrupted.
#include "Tavi/RecoveryCollect/EventRecovery.h"

#include <filesystem>
#include <system_error>

#include "Ksystem/FileUtils/Kdir.h"
#include "Ksystem/FileUtils/Kfile.h"
#include "Tavi/GstUtil/Log.h"
#include "Tavi/PipelineCollect/EntryTimes.h"
#include "Tavi/RecoveryCollect/EventFileName.h"
#include "Tavi/RecoveryCollect/MoveFile.h"
#include "Tavi/Video/VideoPipelineCollect.h"

namespace Tavi::RecoveryCollect {
namespace {

using Ksystem::FileUtils::Kdir;
using Ksystem::FileUtils::Kfile;
using PipelineCollect::CollectBase;
using PipelineCollect::ReadTimesOf;
using PipelineCollect::TimesSuffix;
using Video::VideoPipelineCollect;

/// Where less than this is left beside a copy, what failed may have failed for want of room.
constexpr std::uintmax_t Margin = std::uintmax_t{1} << 20;

bool HasRoomFor(const std::string& source, const std::string& dir) {
  std::error_code error;
  const auto size = std::filesystem::file_size(source, error);
  if (error) return true;
  const auto available = std::filesystem::space(dir, error).available;
  return !error && available > size + Margin;
}

}  // namespace

EventRecovery::EventRecovery(const RecoveryCollectInput& input, const WorkDirectory& work, RecoveryAttempts& attempts,
                             const EventSources& event)
    : m_input(input), m_work(work), m_attempts(attempts), m_event(event) {}

EventRecovery::Result EventRecovery::Recover() {
  std::size_t recovered = 0;
  Result result{true, true};
  RemoveSpares();
  for (const auto& [type, source] : m_event.paths) {
    if (m_attempts.IsGivenUp(GetName(source))) {
      Log::Error(source + " was tried several times and could not be recovered: it is left alone");
      continue;
    }
    const auto end = TryFile(type, source);
    recovered += end == RecoveryAttempts::Result::Done ? 1 : 0;
    if (end != RecoveryAttempts::Result::Done) Log::Error("cannot recover " + source + ": it stays where it is");
    if (end == RecoveryAttempts::Result::ForWantOfRoom) result.isComplete = false;
  }
  // Those whose stream has become a product in a run that was interrupted then.
  for (const auto& entry : m_event.times) {
    if (!m_event.paths.contains(entry.first)) result.isRecovered = MoveTimes(entry.first) && result.isRecovered;
  }
  Log::Info("recovered " + std::to_string(recovered) + " of " + std::to_string(m_event.paths.size()) +
            " files of the interrupted event " + m_event.name);
  result.isRecovered = result.isRecovered && recovered == m_event.paths.size();
  return result;
}

/// Before the better ones become products: left behind they would be taken for an event of their own.
void EventRecovery::RemoveSpares() const {
  for (const auto& spare : m_event.spares) {
    Log::Info(spare + " is there a second time, and whole: it is removed");
    Kfile(spare).Remove();
  }
  if (!m_event.spares.empty()) Kdir::Sync(m_input.restoreDir);
}

RecoveryAttempts::Result EventRecovery::TryFile(Type type, const std::string& source) {
  const std::string name = GetName(source);
  m_attempts.Begin(name);
  auto result = RecoveryAttempts::Result::Done;
  if (!RecoverFile(type, source)) {
    // Once more, as a disk may fail once: the event is not kept waiting for this file.
    if (!HasRoomFor(source, m_input.outputDir)) {
      result = RecoveryAttempts::Result::ForWantOfRoom;
    } else if (!RecoverFile(type, source)) {
      result = RecoveryAttempts::Result::Failed;
    }
  }
  m_attempts.End(name, result);
  return result;
}

bool EventRecovery::RecoverFile(Type type, const std::string& source) const {
  const auto name = ParseBackupName(GetName(source));
  if (name->isHalf) {
    Log::Warning(source + " was not copied to its end: what it holds is recovered");
  }
  if (IsCameraVideo(type) && !name->isMuxed) return RecoverVideo(type, source);
  return MoveFile(source, GetProductPath(type), m_work.GetAsidePath()) && MoveTimes(type);
}

bool EventRecovery::RecoverVideo(Type type, const std::string& source) const {
  std::string mp4Path;
  if (!Mux(type, source, mp4Path)) return false;
  Kfile(source).CopyTimesTo(mp4Path);
  // The source is what an interrupted run begins with again, so it goes last.
  return MoveFile(mp4Path, GetProductPath(type), m_work.GetAsidePath()) && MoveTimes(type) && Kfile(source).Remove();
}

bool EventRecovery::Mux(Type type, const std::string& source, std::string& mp4Path) const {
  const float fps = type == Type::VideoCamera1 ? m_input.camera0Fps : m_input.camera1Fps;
  // Or the MP4 before this one would be taken for its product.
  if (!m_work.Clear() || !m_work.LinkVideo(source)) return false;
  const std::string times = FindTimes(type);
  if (!times.empty()) m_work.LinkVideoTimes(times);
  const std::string sound = FindSound();
  if (!sound.empty()) {
    const std::string soundTimes = FindTimes(Type::Audio);
    if (!soundTimes.empty()) m_work.LinkAudioTimes(soundTimes);
    if (m_work.LinkAudio(sound) &&
        VideoPipelineCollect::Mux(m_work.GetVideoPath(), m_work.GetAudioPath(), fps, mp4Path, GetSoundDelayNs())) {
      return true;
    }
    Log::Warning(source + " cannot be muxed with the sound of " + sound + ": trying without");
  }
  return VideoPipelineCollect::BuildMp4(m_work.GetVideoPath(), fps, mp4Path);
}

/// How much later than the linked video the linked sound begins; 0 where their companions do not tell: both were asked
/// for from the same moment on.
std::int64_t EventRecovery::GetSoundDelayNs() const {
  const auto video = ReadTimesOf(m_work.GetVideoPath());
  const auto sound = ReadTimesOf(m_work.GetAudioPath());
  const auto tells = [](const auto& times) {
    return times && times->hasCaptureTimes && !times->entries.empty() && times->entries.front().timestampNs;
  };
  if (!tells(video) || !tells(sound)) return 0;
  return static_cast<std::int64_t>(*sound->entries.front().timestampNs - *video->entries.front().timestampNs);
}

/// Moves the companion to where its product is; without a product there is nothing that it tells of.
bool EventRecovery::MoveTimes(Type type) const {
  const auto times = m_event.times.find(type);
  if (times == m_event.times.end()) return true;
  const std::string product = GetProductPath(type);
  if (!CollectBase::IsPathAvailable(product)) return Kfile(times->second).Remove();
  return MoveFile(times->second, product + std::string(TimesSuffix), m_work.GetAsidePath());
}

/// The event's sound wherever an interrupted run has left it; empty when there is none.
std::string EventRecovery::FindSound() const {
  const auto source = m_event.paths.find(Type::Audio);
  if (source != m_event.paths.end()) return source->second;
  const std::string product = GetProductPath(Type::Audio);
  return CollectBase::IsPathAvailable(product) ? product : "";
}

/// The same of a stream's companion.
std::string EventRecovery::FindTimes(Type type) const {
  const auto source = m_event.times.find(type);
  if (source != m_event.times.end() && CollectBase::IsPathAvailable(source->second)) return source->second;
  const std::string product = GetProductPath(type) + std::string(TimesSuffix);
  return CollectBase::IsPathAvailable(product) ? product : "";
}

std::string EventRecovery::GetName(const std::string& source) const {
  return source.substr(m_input.restoreDir.size());
}

std::string EventRecovery::GetProductPath(Type type) const {
  return m_input.outputDir + BuildProductName(type, m_event.name);
}

}  // namespace Tavi::RecoveryCollect
