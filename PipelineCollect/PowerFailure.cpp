// What a collect manager does when power fails.
#include <algorithm>
#include <array>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "Kbase/Util/Naming.h"
#include "Kbase/Util/TimeMonitor.h"
#include "Ksystem/FileUtils/Kdir.h"
#include "Pipeline/Log.h"
#include "Pipeline/PipelineManager.h"
#include "PipelineCollect/PipelineCollectManager.h"

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
  std::vector<std::unique_ptr<std::thread>> copies;
  for (const auto type : SavedTypes) {
    CollectBase* collector = GetCollectElement(collectors, type);
    if (collector != nullptr) copies.push_back(collector->BackupAsync(m_config.backupDir, name));
  }
  for (const auto& copy : copies) copy->join();
  return std::all_of(SavedTypes.begin(), SavedTypes.end(), [&](PipelineCollectType type) {
    const CollectBase* collector = GetCollectElement(collectors, type);
    return collector == nullptr || (!collector->IsRunning() && collector->IsBackedUp(m_config.backupDir, name));
  });
}

}  // namespace Tavi::PipelineCollect
