// What the console knows of all events, kept in memory.
#include "Fleet/Web/EventIndex.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "EventStore/EventDescription.h"
#include "EventStore/EventName.h"
#include "EventStore/LaterLabel.h"
#include "EventStore/PartName.h"
#include "EventStore/Storage.h"
#include "Kbase/Json/Json.h"

namespace Tavi::Web {
namespace {

using namespace std::chrono_literals;
using EventStore::EventDescription;
using Json = Kbase::Json::Object;

constexpr auto Period = 1000ms;
/// How often the first look shows what it has so far.
constexpr auto ShowPeriod = 250ms;
constexpr std::int64_t NsPerMs = 1'000'000;

template <class T>
Json OrNull(const std::optional<T>& value) {
  return value ? Json(*value) : Json(nullptr);
}

std::string FindStill(const EventDescription& event) {
  for (const char* type : {"ThumbnailCamera1", "ThumbnailCamera0", "PreviewStill"}) {
    for (const auto& file : event.files) {
      if (file.type == type) return file.name;
    }
  }
  return {};
}

Json DescribeMissing(const EventDescription& event) {
  Json list = Json::array();
  for (const auto& part : event.missing) {
    const std::string name = EventStore::GetPartName(part.type, event.cameraNames);
    list.push_back({{"part", name}, {"seconds", part.seconds}, {"reason", part.reason}});
  }
  return list;
}

Json Describe(const EventDescription& event, const EventSummary& summary) {
  Json json;
  json["id"] = event.id;
  json["directory"] = summary.entry.name;
  json["time"] = EventStore::FormatTime(event.timeMs);
  json["timeSource"] = event.timeSource;
  json["label"] = event.label;
  json["laterLabel"] = summary.laterLabel;
  json["trigger"] = event.trigger;
  json["position"] = nullptr;
  if (event.position) {
    json["position"] = {{"latitude", event.position->latitude}, {"longitude", event.position->longitude}};
  }
  json["maxSpeedKnots"] = OrNull(event.maxSpeedKnots);
  json["maxG"] = OrNull(event.maxG);
  json["seconds"] = summary.seconds;
  json["bytes"] = summary.entry.bytes;
  json["protected"] = summary.entry.isProtected;
  json["interrupted"] = event.interrupted;
  json["signed"] = event.seal.has_value();
  json["missing"] = DescribeMissing(event);
  json["still"] = FindStill(event);
  return json;
}

void Fill(const EventDescription& event, EventSummary& summary) {
  summary.timeMs = event.timeMs;
  summary.label = event.label;
  summary.trigger = event.trigger;
  summary.maxSpeedKnots = event.maxSpeedKnots;
  summary.maxG = event.maxG;
  summary.seconds = EventStore::GetRecordedSeconds(event);
  summary.isWhole = event.missing.empty() && !event.interrupted;
  summary.searched = FoldCase(fmt::format("{}\n{}\n{}\n{}\n{}", event.id, event.label, summary.laterLabel,
                                          EventStore::FormatTime(event.timeMs), event.trigger));
  summary.json = Kbase::Json::Print(Describe(event, summary));
}

std::shared_ptr<const EventSummary> LookAt(const std::string& directory, const EventStore::EventEntry& entry) {
  auto summary = std::make_shared<EventSummary>();
  summary->entry = entry;
  summary->laterLabel = EventStore::ReadLaterLabel(directory + "/" + entry.name);
  std::string problem;
  if (const auto event = EventStore::ReadEvent(directory + "/" + entry.name, problem)) {
    Fill(*event, *summary);
    return summary;
  }
  summary->timeMs = entry.savedNs / NsPerMs;
  summary->isWhole = false;
  summary->searched = entry.id;
  summary->json = Kbase::Json::Print({{"id", entry.id},
                                      {"directory", entry.name},
                                      {"bytes", entry.bytes},
                                      {"protected", entry.isProtected},
                                      {"problem", problem}});
  return summary;
}

bool IsSame(const EventStore::EventEntry& a, const EventStore::EventEntry& b) {
  return a.changedNs == b.changedNs && a.isProtected == b.isProtected && a.savedNs == b.savedNs && a.bytes == b.bytes;
}

}  // namespace

std::string FoldCase(std::string_view utf8) {
  std::string folded(utf8);
  unsigned char before = 0;
  for (char& c : folded) {
    const auto byte = static_cast<unsigned char>(c);
    // U+00C0 to U+00DE but the multiplication sign: two bytes, of which the second differs by 0x20.
    const bool isLatin = before == 0xC3 && byte >= 0x80 && byte <= 0x9E && byte != 0x97;
    if (isLatin || (byte >= 'A' && byte <= 'Z')) c = static_cast<char>(byte + 0x20);
    before = byte;
  }
  return folded;
}

EventIndex::EventIndex(std::function<std::string()> findDirectory)
    : IThread("INDEX", OnFailure::GoOn), m_findDirectory(std::move(findDirectory)) {
  m_snapshot.events = std::make_shared<EventSummaries>();
}

EventIndex::Snapshot EventIndex::Read() const {
  const std::lock_guard lock(m_mutex);
  return m_snapshot;
}

std::shared_ptr<const EventSummary> EventIndex::Find(std::string_view id) const {
  const auto events = Read().events;
  const auto found = std::ranges::find_if(*events, [id](const auto& event) { return event->entry.id == id; });
  return found == events->end() ? nullptr : *found;
}

void EventIndex::Refresh(std::chrono::milliseconds patience) {
  std::unique_lock lock(m_mutex);
  const std::uint64_t wanted = m_begun + 1;
  lock.unlock();
  Wake();
  lock.lock();
  m_changed.wait_for(lock, patience, [this, wanted] { return m_done >= wanted; });
}

void EventIndex::Run() {
  std::uint64_t present = 0;
  {
    const std::lock_guard lock(m_mutex);
    present = ++m_begun;
  }
  std::string directory = m_findDirectory();
  while (directory.size() > 1 && directory.back() == '/') directory.pop_back();
  if (!directory.empty()) Look(directory);
  {
    const std::lock_guard lock(m_mutex);
    m_done = present;
  }
  m_changed.notify_all();
  WaitForCancel(Period);
}

void EventIndex::Look(const std::string& directory) {
  if (m_listed != directory) {
    m_lister = std::make_unique<EventStore::EventLister>(directory);
    m_known.clear();
  }
  const bool isFirst = m_listed != directory;
  if (::access(directory.c_str(), R_OK | X_OK) != 0) {
    Publish({}, directory, false, fmt::format("{} cannot be read: {}", directory, std::strerror(errno)));
    return;
  }
  if (isFirst) Publish({}, directory, true, {});
  const auto entries = m_lister->List();
  decltype(m_known) found;
  EventSummaries events;
  events.reserve(entries.size());
  auto shown = std::chrono::steady_clock::now();
  for (auto entry = entries.rbegin(); entry != entries.rend() && !IsCancelled(); ++entry) {
    const auto known = m_known.find(entry->name);
    const bool isSame = known != m_known.end() && IsSame(known->second->entry, *entry);
    events.push_back(isSame ? known->second : LookAt(directory, *entry));
    found.emplace(entry->name, events.back());
    if (!isFirst || std::chrono::steady_clock::now() - shown < ShowPeriod) continue;
    Publish(events, directory, true, {});
    shown = std::chrono::steady_clock::now();
  }
  m_known.swap(found);
  m_listed = directory;
  Publish(std::move(events), directory, false, {});
}

void EventIndex::Publish(EventSummaries events, const std::string& directory, bool isFirstLook, std::string problem) {
  auto shared = std::make_shared<const EventSummaries>(std::move(events));
  const std::lock_guard lock(m_mutex);
  m_snapshot = {std::move(shared), directory, isFirstLook, std::move(problem)};
}

}  // namespace Tavi::Web
