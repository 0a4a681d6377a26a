// Which events the broker has acknowledged.
#include "Fleet/Mqtt/AcknowledgedEvents.h"

#include <fmt/format.h>

#include <filesystem>
#include <sstream>
#include <string_view>

#include "EventStore/EventName.h"
#include "EventStore/Storage.h"

namespace Tavi::Mqtt {
namespace {

constexpr std::string_view Header = "acknowledged 1";
/// A million names; the recorder keeps no more events.
constexpr std::size_t LargestFile = std::size_t{1} << 25;
/// How many that are gone are remembered.
constexpr std::size_t RememberedBeyond = 1000;

bool Parse(const std::string& text, std::set<std::string, std::less<>>& names) {
  std::istringstream lines(text);
  std::string line;
  if (!std::getline(lines, line) || line != Header || !text.ends_with('\n')) return false;
  while (std::getline(lines, line)) {
    if (!EventStore::IsEventDirName(line)) return false;
    names.insert(line);
  }
  return true;
}

std::string GetDirectory(const std::string& file) {
  const auto directory = std::filesystem::path(file).parent_path().string();
  return directory.empty() ? "." : directory;
}

}  // namespace

AcknowledgedEvents::Loaded AcknowledgedEvents::Load(std::string& problem) {
  m_names.clear();
  if (!EventStore::Exists(m_file)) {
    // What cannot be written then is told now.
    std::error_code error;
    std::filesystem::create_directories(GetDirectory(m_file), error);
    const bool isWritable = EventStore::WriteSynced(m_file + ".new", "", problem);
    std::filesystem::remove(m_file + ".new", error);
    return isWritable ? Loaded::None : Loaded::Failed;
  }
  std::string text;
  if (!EventStore::ReadSmallFile(m_file, LargestFile, text, problem)) return Loaded::Failed;
  if (Parse(text, m_names)) return Loaded::Yes;
  m_names.clear();
  if (!EventStore::Rename(m_file, m_file + ".damaged", problem)) return Loaded::Failed;
  // An empty one in its place: without any the next start would take itself for the first.
  if (!Save(problem)) return Loaded::Failed;
  problem = fmt::format("{} is damaged and was put aside; every event is published once more", m_file);
  return Loaded::Yes;
}

bool AcknowledgedEvents::Add(const std::vector<std::string>& names, std::string& problem) {
  m_names.insert(names.begin(), names.end());
  return Save(problem);
}

bool AcknowledgedEvents::Save(std::string& problem) const {
  std::string text = fmt::format("{}\n", Header);
  for (const auto& name : m_names) text += name + "\n";
  const std::string aside = m_file + ".new";
  return EventStore::WriteSynced(aside, text, problem) && EventStore::Rename(aside, m_file, problem) &&
         EventStore::SyncDirectory(GetDirectory(m_file), problem);
}

void AcknowledgedEvents::Forget(const std::vector<EventStore::EventEntry>& present) {
  if (m_names.size() <= present.size() + RememberedBeyond) return;
  std::set<std::string, std::less<>> kept;
  for (const auto& entry : present) {
    if (Has(entry.name)) kept.insert(entry.name);
  }
  m_names.swap(kept);
}

}  // namespace Tavi::Mqtt
