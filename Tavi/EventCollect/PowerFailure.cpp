// What a collect manager does when power fails.
#include "Tavi/EventCollect/PipelineCollectManager.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <memory>
#include <mutex>
#include <numeric>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "Kbase/Util/Naming.h"
#include "Kbase/Util/TimeMonitor.h"
#include "Ksystem/FileUtils/Kdir.h"
#include "Tavi/GstUtil/Log.h"
#include "Tavi/Pipeline/PipelineManager.h"

namespace Tavi::PipelineCollect {
namespace {

using Milliseconds = Kbase::Util::IClock::Milliseconds;

/// How long collectors may take to write and sync their last entries when power fails.
constexpr Milliseconds SaveLimit{2000};
constexpr Milliseconds SavePollPeriod{1};

/// What is saved when power fails, in this order.
constexpr std::array<PipelineCollectType, 7> SavedTypes{PipelineCollectType::VideoCamera0,
                                                        PipelineCollectType::VideoCamera1,
                                                        PipelineCollectType::Audio,
                                                        PipelineCollectType::Gps,
                                                        PipelineCollectType::Acc,
                                                        PipelineCollectType::ThumbnailCamera0,
                                                        PipelineCollectType::ThumbnailCamera1};

std::uintmax_t SizeOf(const CollectBase* collector) {
  std::error_code error;
  const auto size = std::filesystem::file_size(collector->GetPath(), error);
  return error ? 0 : size;
}

bool DoAllFit(const std::vector<CollectBase*>& collectors, const std::string& dir) {
  std::error_code error;
  const auto available = std::filesystem::space(dir, error).available;
  const auto add = [](std::uintmax_t sum, const CollectBase* collector) { return sum + SizeOf(collector); };
  return error || std::accumulate(collectors.begin(), collectors.end(), std::uintmax_t{0}, add) < available;
}

/// Copies all files side by side; where there is no room for all of them the small ones come first, one by one, or the
/// cameras would leave nothing to the rest.
void CopyAll(std::vector<CollectBase*> collectors, const std::string& dir, const std::string& name) {
  std::vector<std::unique_ptr<std::thread>> copies;
  const bool allFit = DoAllFit(collectors, dir);
  if (!allFit) {
    Log::Error("there is no room for the whole event in " + dir + ": its small files are saved first");
    std::ranges::sort(collectors, {}, SizeOf);
  }
  for (const CollectBase* collector : collectors) {
    copies.push_back(collector->BackupAsync(dir, name));
    if (!allFit) copies.back()->join();
  }
  for (const auto& copy : copies) {
    if (copy->joinable()) copy->join();
  }
}

}  // namespace

void PipelineCollectManager::PowerFailure() {
  {
    const std::lock_guard lock(m_stateMutex);
    if (m_muxing) m_muxPowerFailure = true;
    if (!m_collecting) return;
    m_powerFailure = true;
  }
  RequestSave();
}

void PipelineCollectManager::RequestSave() {
  for (const auto& [type, collector] : m_collectors) {
    if (!collector->IsRunning()) continue;
    collector->SetSyncToDisk(true);
    collector->RequestStop();
  }
}

void PipelineCollectManager::SaveAll() {
  EndCollectors();
  Log::Info("[Power Failure]Stopping the aquisition...");
  m_config.pipelineManager->RunSigInt();
  Log::Info("[Power Failure]Making backup...");
  const bool isSaved = Backup(m_collectors, m_config.cr ? "event-cr" : "event");
  Log::Info("[Power Failure]Backup finished");
  // Should the machine outlive this, the event must not be there twice.
  if (isSaved) DeleteAll();
}

/// Nothing may read a ring any more when acquisition stops. Those that hang in their disk are left behind: their files
/// are saved as they are.
void PipelineCollectManager::EndCollectors() {
  RequestSave();
  const Kbase::Util::TimeMonitor monitor;
  while (Running() && monitor.Elapsed() < SaveLimit) m_clock.Sleep(SavePollPeriod);
  for (const auto& [type, collector] : m_collectors) {
    if (collector->IsRunning()) Log::Error(collector->GetPath() + " cannot be finished: its disk does not answer");
  }
}

/// False when a file could not be saved whole.
bool PipelineCollectManager::Backup(const CollectorMap& collectors, const std::string& base) const {
  if (!Ksystem::FileUtils::Kdir(m_config.backupDir).Create()) {
    Log::Error("cannot save the event into " + m_config.backupDir + ": the directory cannot be created");
    return false;
  }
  unsigned int seconds = 0;
  for (const auto type :
       {PipelineCollectType::VideoCamera0, PipelineCollectType::VideoCamera1, PipelineCollectType::Audio}) {
    CollectBase* collector = GetCollectElement(collectors, type);
    if (collector != nullptr) seconds = std::max(seconds, collector->GetTotalSecondsCollected());
  }
  const std::string name = fmt::format("{}_{}", Kbase::Util::BuildEventFileName(base, std::time(nullptr)), seconds);
  std::vector<CollectBase*> saved;
  for (const auto type : SavedTypes) {
    CollectBase* collector = GetCollectElement(collectors, type);
    if (collector != nullptr) saved.push_back(collector);
  }
  CopyAll(saved, m_config.backupDir, name);
  return std::ranges::all_of(saved, [&](const CollectBase* collector) {
    return !collector->IsRunning() && collector->IsBackedUp(m_config.backupDir, name);
  });
}

}  // namespace Tavi::PipelineCollect
