// Saving an event's files when power fails.
#include "Tavi/EventCollect/PowerBackup.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <memory>
#include <numeric>
#include <optional>
#include <system_error>
#include <vector>

#include <fmt/format.h>

#include "Kbase/Util/Naming.h"
#include "Ksystem/FileUtils/Kdir.h"
#include "Tavi/EventCollect/CopyAhead.h"
#include "Tavi/GstUtil/Log.h"

namespace Tavi::PipelineCollect {
namespace {

/// The streams whose length is in the names.
constexpr std::array<PipelineCollectType, 3> TimedTypes{PipelineCollectType::VideoCamera0,
                                                        PipelineCollectType::VideoCamera1, PipelineCollectType::Audio};

template <std::size_t Count>
std::vector<CollectBase*> Select(const CollectorMap& collectors, const std::array<PipelineCollectType, Count>& types) {
  std::vector<CollectBase*> selected;
  for (const auto type : types) {
    if (CollectBase* collector = CollectorSet::Get(collectors, type)) selected.push_back(collector);
  }
  return selected;
}

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

}  // namespace

bool PowerBackup::Save(const CollectorMap& collectors, const std::string& base, CopyAhead* ahead) const {
  if (!Ksystem::FileUtils::Kdir(m_dir).Create()) {
    Log::Error("cannot save the event into " + m_dir + ": the directory cannot be created");
    return false;
  }
  if (const auto saved = ahead != nullptr ? ahead->Save(collectors) : std::nullopt) return *saved;
  unsigned int seconds = 0;
  for (CollectBase* collector : Select(collectors, TimedTypes)) {
    seconds = std::max(seconds, collector->GetTotalSecondsCollected());
  }
  const std::string name = fmt::format("{}_{}", Kbase::Util::BuildEventFileName(base, std::time(nullptr)), seconds);
  return CopyAll(Select(collectors, SavedTypes), name);
}

/// Copies all files side by side; where there is no room for all of them the small ones come first, one by one, or the
/// cameras would leave nothing to the rest.
bool PowerBackup::CopyAll(std::vector<CollectBase*> collectors, const std::string& name) const {
  const bool allFit = DoAllFit(collectors, m_dir);
  if (!allFit) {
    Log::Error("there is no room for the whole event in " + m_dir + ": its small files are saved first");
    std::ranges::sort(collectors, {}, SizeOf);
  }
  bool allSaved = true;
  std::vector<std::unique_ptr<BackupThread>> copies;
  for (const CollectBase* collector : collectors) {
    // One that still runs hangs in its disk: what it has is saved, but more may come.
    allSaved = allSaved && !collector->IsRunning();
    if (!collector->IsPathAvailable()) continue;
    copies.push_back(collector->BackupAsync(m_dir, name));
    if (!allFit) copies.back()->join();
  }
  for (const auto& copy : copies) allSaved = copy->IsSaved() && allSaved;
  return allSaved;
}

}  // namespace Tavi::PipelineCollect
