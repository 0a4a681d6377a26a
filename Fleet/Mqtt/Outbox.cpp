// The events that are still to be published.
#include "Fleet/Mqtt/Outbox.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>
#include <utility>

#include "EventStore/Storage.h"
#include "Fleet/Mqtt/Log.h"

namespace Tavi::Mqtt {
namespace {

using EventStore::EventEntry;
constexpr std::chrono::seconds LookEvery{30};
/// A broker that comes and goes is no fault of the event that it was just being told.
constexpr int MostFailures = 5;
constexpr std::chrono::minutes PutOffFor{10};

}  // namespace

bool Outbox::Open(bool withEarlier, std::string& problem) {
  problem.clear();
  const auto loaded = m_acknowledged.Load(problem);
  if (loaded == AcknowledgedEvents::Loaded::Failed) return false;
  if (!problem.empty()) Log::Warning(problem);
  m_isFirstLook = loaded == AcknowledgedEvents::Loaded::None && !withEarlier;
  return true;
}

void Outbox::SetDirectory(const std::string& directory) {
  std::string path = directory;
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  if (path == m_directory) return;
  m_directory = path;
  m_lister.emplace(path);
  m_waiting.clear();
  m_lookedAt.reset();
  m_watch.Open(path);
}

void Outbox::Look(Clock::time_point now) {
  if (!m_lister) return;
  const bool isDue = !m_lookedAt || now - *m_lookedAt >= LookEvery;
  const bool hasChanged = m_watch.HasChanged();
  if (!isDue && !hasChanged) return;
  m_lookedAt = now;
  const bool isThere = EventStore::IsDirectory(m_directory);
  if (!isThere && !m_isMissingTold)
    Log::Warning(fmt::format("there is no directory {}; is its disk away?", m_directory));
  m_isMissingTold = !isThere;
  if (!isThere) return;
  // Where another disk has taken the place the old watch sees nothing.
  if (isDue) m_watch.Open(m_directory);
  TakeAll(m_lister->List());
}

void Outbox::TakeAll(const std::vector<EventEntry>& entries) {
  if (std::exchange(m_isFirstLook, false)) {
    std::vector<std::string> names;
    for (const auto& entry : entries) names.push_back(entry.name);
    Write(names);
    Log::Info(fmt::format("first start: {} events that are there already are not published", names.size()));
  }
  m_acknowledged.Forget(entries);
  const auto before = std::exchange(m_waiting, {});
  std::ranges::copy_if(entries, std::back_inserter(m_waiting),
                       [this](const EventEntry& entry) { return !m_acknowledged.Has(entry.name); });
  m_newest = entries.empty() ? std::nullopt : std::optional(entries.back());
  TellRemoved(before);
  std::erase_if(m_troubles, [this](const auto& trouble) {
    return std::ranges::find(m_waiting, trouble.first, &EventEntry::name) == m_waiting.end();
  });
}

void Outbox::TellRemoved(const std::vector<EventEntry>& before) const {
  std::set<std::string_view> waiting;
  for (const auto& entry : m_waiting) waiting.insert(entry.name);
  for (const auto& entry : before) {
    if (!waiting.contains(entry.name)) {
      Log::Warning(fmt::format("event {} was removed before the broker had it", entry.name));
    }
  }
}

const EventEntry* Outbox::GetNext(Clock::time_point now) const {
  const auto next = std::ranges::find_if(m_waiting, [&](const EventEntry& entry) {
    const auto trouble = m_troubles.find(entry.name);
    return trouble == m_troubles.end() || trouble->second.notBefore <= now;
  });
  return next == m_waiting.end() ? nullptr : &*next;
}

void Outbox::Acknowledge(const std::string& name) {
  m_troubles.erase(name);
  std::erase_if(m_waiting, [&](const EventEntry& entry) { return entry.name == name; });
  Write({name});
}

void Outbox::Write(const std::vector<std::string>& names) {
  std::string problem;
  const bool isWritten = m_acknowledged.Add(names, problem);
  if (!isWritten && !m_isUnwrittenTold) {
    Log::Warning(fmt::format("{}; after a restart events are published once more", problem));
  }
  m_isUnwrittenTold = !isWritten;
}

void Outbox::Fail(const std::string& name, const std::string& why, bool isHopeless, Clock::time_point now) {
  auto& trouble = m_troubles[name];
  if (!isHopeless && ++trouble.failures < MostFailures) return;
  // Told once an event: from then on it fails as it did before.
  if (trouble.notBefore == Clock::time_point()) {
    Log::Warning(fmt::format("event {} is put off, others come first: {}", name, why));
  }
  trouble = {0, now + PutOffFor};
}

}  // namespace Tavi::Mqtt
