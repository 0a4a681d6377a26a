// The base of every collector.
#include "Tavi/PipelineCollect/CollectBase.h"

#include <array>
#include <filesystem>
#include <system_error>
#include <utility>

#include "Kbase/Util/Naming.h"
#include "Ksystem/FileUtils/Kfile.h"
#include "Tavi/PipelineCollect/EntryTimes.h"

namespace Tavi::PipelineCollect {
namespace {

using Ksystem::FileUtils::Kfile;

struct FileNaming {
  const char* prefix;
  const char* extension;
};

/// By value of PipelineCollectType.
constexpr std::array<FileNaming, 9> FileNamings{{
    {"video1_", ".h264"},
    {"video0_", ".h264"},
    {"audio_", ".mp3"},
    {"gps_", ".dat"},
    {"acc_", ".dat"},
    {"other_", ".dat"},
    {"thumbnail1_", ".jpg"},
    {"thumbnail0_", ".jpg"},
    {"preview_", ".h264"},
}};

}  // namespace

BackupThread::BackupThread(const std::function<bool()>& copy) {
  try {
    m_thread = std::thread([this, copy] { m_guard.Run([&] { m_saved = copy(); }); });
  } catch (const std::system_error&) {
    m_saved = copy();
  }
}

void BackupThread::join() {
  if (m_thread.joinable()) m_thread.join();
}

bool BackupThread::IsSaved() {
  join();
  return m_saved;
}

CollectBase::CollectBase(PipelineCollectType type, std::string threadName)
    : IThread(std::move(threadName)), m_type(type) {}

CollectBase::~CollectBase() = default;

void CollectBase::Init(PipelineCollectConfig& config) {
  m_collected = false;
  m_path = config.outputDir + GetPipelineCollectFileName(Kbase::Util::NewUid());
  m_armed = true;
  m_stop = false;
  m_syncToDisk = false;
  m_silent = false;
  m_endInSilence = false;
  m_config = config;
}

void CollectBase::Run() {
  if (m_armed) Collect();
  Cancel();
}

void CollectBase::Reset() {
  m_path.clear();
  m_armed = false;
  m_collected = false;
}

void CollectBase::CopyTo(CollectBase* other) {
  other->m_path = m_path;
  other->m_collected = m_collected.load();
  other->m_type = m_type;
  other->m_stop = m_stop.load();
  other->m_syncToDisk = m_syncToDisk.load();
  other->m_config = m_config;
  other->m_armed = m_armed;
}

void CollectBase::Report(PipelineCollectOutput& output) const {
  if (m_collected) output.AddOutput(m_type, m_path);
}

void CollectBase::RequestStop() {
  m_stop = true;
  Wake();
}

void CollectBase::EndInSilence() {
  m_endInSilence = true;
  Wake();
}

bool CollectBase::IsPathAvailable(const std::string& path) {
  Kfile file(path, true);
  return file.Stat() && file.GetSize() != 0;
}

void CollectBase::DeletePath() {
  if (!m_path.empty()) {
    Kfile(m_path, true).Remove();
    Kfile(m_path + std::string(TimesSuffix), true).Remove();
  }
  m_collected = false;
}

std::string CollectBase::GetBackupPath(const std::string& dir, const std::string& name) const {
  const std::string separator = !dir.empty() && dir.back() == '/' ? "" : "/";
  // A stream that was muxed already is saved as the MP4 that it is.
  const bool isMuxed = std::filesystem::path(m_path).extension() == ".mp4";
  return dir + separator +
         (isMuxed ? GetPipelineCollectPrefix(m_type) + name + ".mp4" : GetPipelineCollectFileName(name));
}

bool CollectBase::Backup(const std::string& dir, const std::string& name) const {
  if (!IsPathAvailable()) return false;
  const std::string dest = GetBackupPath(dir, name);
  const std::string times = m_path + std::string(TimesSuffix);
  // The companion first: it is small, and tells of a stream that does not fit whole, too.
  const bool hasTimes = IsPathAvailable(times);
  const bool timesSaved = !hasTimes || Kfile(times, true).CopyTo(dest + std::string(TimesSuffix), false);
  return Kfile(m_path, true).CopyTo(dest, false, true) && timesSaved;
}

std::unique_ptr<BackupThread> CollectBase::BackupAsync(const std::string& dir, const std::string& name) const {
  return std::make_unique<BackupThread>([this, dir, name] { return Backup(dir, name); });
}

void CollectBase::GetPipelineCollectPrefixAndExtension(PipelineCollectType type, std::string& prefix,
                                                       std::string& extension) {
  const auto index = static_cast<std::size_t>(type);
  const FileNaming naming = index < FileNamings.size() ? FileNamings[index] : FileNaming{"", ""};
  prefix = naming.prefix;
  extension = naming.extension;
}

void CollectBase::GetPipelineCollectPrefixAndExtension(std::string& prefix, std::string& extension) const {
  GetPipelineCollectPrefixAndExtension(m_type, prefix, extension);
}

std::string CollectBase::GetPipelineCollectPrefix(PipelineCollectType type) {
  std::string prefix;
  std::string extension;
  GetPipelineCollectPrefixAndExtension(type, prefix, extension);
  return prefix;
}

std::string CollectBase::GetPipelineCollectFileName(const std::string& name) const {
  std::string prefix;
  std::string extension;
  GetPipelineCollectPrefixAndExtension(prefix, extension);
  return prefix + name + extension;
}

}  // namespace Tavi::PipelineCollect
