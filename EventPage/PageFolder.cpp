// Keeps a page in each event's directory, and the list of all events beside them.
#include "EventPage/PageFolder.h"

#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <utility>

#include "EventPage/EventData.h"
#include "EventPage/IndexHtml.h"
#include "EventPage/PageHtml.h"
#include "EventStore/EventName.h"
#include "EventStore/LaterLabel.h"
#include "EventStore/Storage.h"

namespace Tavi::EventTools {
namespace {

using namespace EventStore;

/// The coarsest resolution of a file system's times (FAT), and what clocks differ by: a directory that was changed as
/// recently may be changed again under the same time.
constexpr std::int64_t SettledNs = 3'000'000'000;

std::int64_t GetNowNs() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return ToNs(now);
}

/// Power that goes behind the rename may leave a name without content.
bool IsWhole(const std::string& path) {
  struct stat attributes {};
  return ::lstat(path.c_str(), &attributes) == 0 && S_ISREG(attributes.st_mode) && attributes.st_size > 0;
}

bool WriteAside(const std::string& directory, std::string_view text, std::string& problem) {
  const std::string aside = directory + "/" + std::string(NewPageName);
  return WriteSynced(aside, text, problem) && Rename(aside, directory + "/" + std::string(PageName), problem);
}

}  // namespace

PageFolder::PageFolder(std::string eventsDir, std::function<bool()> isHurried)
    : m_eventsDir(std::move(eventsDir)), m_isHurried(std::move(isHurried)) {}

int PageFolder::Update() {
  m_made = 0;
  if (!HasChanged()) return 0;
  std::vector<std::string> present = ListNames(m_eventsDir);
  std::erase_if(present, [](const std::string& name) { return !IsEventDirName(name); });
  Forget(present);
  // By their names the newest are the last.
  for (auto name = present.rbegin(); name != present.rend(); ++name) {
    Known& known = m_events[*name];
    if (known.hasPage) continue;
    if (m_isHurried()) {
      m_changedNs = 0;
      return m_made;
    }
    if (!Take(*name, known)) m_events.erase(*name);
  }
  WriteIndex();
  return m_made;
}

bool PageFolder::HasChanged() {
  struct stat attributes {};
  // Not there yet, or not any more: whoever writes events says so.
  if (::stat(m_eventsDir.c_str(), &attributes) != 0) return false;
  const std::int64_t changedNs = ToNs(attributes.st_mtim);
  if (changedNs == m_changedNs) return false;
  const std::int64_t ageNs = GetNowNs() - changedNs;
  m_changedNs = ageNs > SettledNs || ageNs < 0 ? changedNs : 0;
  return true;
}

void PageFolder::Forget(const std::vector<std::string>& present) {
  std::erase_if(m_events, [&present](const auto& event) { return !std::ranges::binary_search(present, event.first); });
}

/// False for what is no event, or is none any more.
bool PageFolder::Take(const std::string& name, Known& known) {
  const std::string directory = m_eventsDir + "/" + name;
  std::string problem;
  const auto event = ReadEvent(directory, problem);
  if (!event && !Exists(directory + "/" + EventJsonName)) return false;
  known.row = event ? BuildRow(*event, name, ReadLaterLabel(directory)) : BuildUnreadableRow(name);
  known.hasPage = HasPage(name);
  if (event && !known.hasPage) MakePage(directory, known);
  return true;
}

/// One that was made before the last words about the event does not count.
bool PageFolder::HasPage(const std::string& name) const {
  const std::string directory = m_eventsDir + "/" + name;
  struct stat attributes {};
  const std::string path = directory + "/" + std::string(PageName);
  if (m_renewed.contains(GetEventId(name)) || !IsWhole(path)) return false;
  return ::lstat(path.c_str(), &attributes) == 0 && ToNs(attributes.st_mtim) >= GetLaterLabelTime(directory);
}

void PageFolder::Renew(const std::string& id) {
  std::erase_if(m_events, [&id](const auto& event) { return GetEventId(event.first) == id; });
  m_renewed.insert(id);
  m_changedNs = 0;
}

void PageFolder::MakePage(const std::string& directory, Known& known) {
  EventData data;
  std::string problem;
  known.hasPage = LoadEvent(directory, data, problem, EventProof::Nothing) &&
                  WriteAside(directory, BuildPageBesideFiles(data), problem);
  m_made += known.hasPage ? 1 : 0;
  if (known.hasPage) m_renewed.erase(data.description.id);
  // The event may have made room for another meanwhile.
  if (!known.hasPage && IsDirectory(directory)) Complain(problem);
}

void PageFolder::WriteIndex() {
  std::vector<std::string_view> rows;
  for (auto event = m_events.rbegin(); event != m_events.rend(); ++event) rows.emplace_back(event->second.row);
  std::string index = BuildIndex(rows);
  if (index == m_index && IsWhole(m_eventsDir + "/" + std::string(PageName))) return;
  std::string problem;
  if (WriteAside(m_eventsDir, index, problem)) {
    m_index = std::move(index);
  } else {
    Complain(problem);
  }
}

/// Once, not each second.
void PageFolder::Complain(const std::string& problem) {
  if (std::exchange(m_problem, problem) != problem) LogWarning("a page of events is not made: " + problem);
}

}  // namespace Tavi::EventTools
