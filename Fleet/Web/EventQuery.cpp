// What one asks the list of events for.
#include "Fleet/Web/EventQuery.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

#include "EventStore/EventName.h"
#include "Kbase/Json/Json.h"

namespace Tavi::Web {
namespace {

using Key = EventQuery::Key;

constexpr std::array<std::pair<std::string_view, Key>, 8> Keys{{{"time", Key::Time},
                                                                {"saved", Key::Saved},
                                                                {"label", Key::Label},
                                                                {"trigger", Key::Trigger},
                                                                {"speed", Key::Speed},
                                                                {"peak", Key::Peak},
                                                                {"length", Key::Length},
                                                                {"size", Key::Size}}};

bool ReadCount(std::string_view text, std::size_t most, std::size_t& count) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
  return error == std::errc() && end == text.data() + text.size() && count <= most;
}

bool ReadKey(std::string_view text, Key& key) {
  const auto found = std::ranges::find(Keys, text, &std::pair<std::string_view, Key>::first);
  if (found != Keys.end()) key = found->second;
  return found != Keys.end();
}

bool ReadOrder(std::string_view text, bool& isDescending) {
  isDescending = text == "desc";
  return isDescending || text == "asc";
}

bool ReadFlag(std::string_view text, std::optional<bool>& flag) {
  flag = text == "true";
  return *flag || text == "false";
}

/// A day, a minute or a millisecond of UTC. `isEnd`: its last moment instead of its first.
bool ReadTime(std::string_view text, bool isEnd, std::optional<std::int64_t>& timeMs) {
  std::string full(text);
  if (text.size() == 10) full += isEnd ? "T23:59:59.999Z" : "T00:00:00.000Z";
  if (text.size() == 16) full += isEnd ? ":59.999Z" : ":00.000Z";
  timeMs = EventStore::ParseTime(full);
  return timeMs.has_value();
}

struct Parameter {
  std::string_view name;
  std::string_view right;
  bool (*read)(const std::string& text, EventQuery& query);
};

constexpr std::string_view RightTime = "a UTC time such as 2026-11-21, 2026-11-21T13:40 or 2026-11-21T13:40:05.123Z";

constexpr std::array<Parameter, 10> Parameters{{
    {"offset", "a number", [](const auto& text, auto& query) { return ReadCount(text, SIZE_MAX, query.offset); }},
    {"limit", "0 to 500",
     [](const auto& text, auto& query) { return ReadCount(text, EventQuery::MostAtOnce, query.limit); }},
    {"sort", "time, saved, label, trigger, speed, peak, length or size",
     [](const auto& text, auto& query) { return ReadKey(text, query.sort); }},
    {"order", "asc or desc", [](const auto& text, auto& query) { return ReadOrder(text, query.isDescending); }},
    {"q", "text", [](const auto& text, auto& query) { return query.text = FoldCase(text), true; }},
    {"trigger", "request, acceleration or recovery",
     [](const auto& text, auto& query) { return query.trigger = text, true; }},
    {"from", RightTime, [](const auto& text, auto& query) { return ReadTime(text, false, query.fromMs); }},
    {"to", RightTime, [](const auto& text, auto& query) { return ReadTime(text, true, query.toMs); }},
    {"protected", "true or false", [](const auto& text, auto& query) { return ReadFlag(text, query.isProtected); }},
    {"missing", "true or false", [](const auto& text, auto& query) { return ReadFlag(text, query.isIncomplete); }},
}};

bool Fits(const EventSummary& event, const EventQuery& query) {
  if (query.fromMs && event.timeMs < *query.fromMs) return false;
  if (query.toMs && event.timeMs > *query.toMs) return false;
  if (query.isProtected && event.entry.isProtected != *query.isProtected) return false;
  if (query.isIncomplete && event.isWhole == *query.isIncomplete) return false;
  if (!query.trigger.empty() && event.trigger != query.trigger) return false;
  return query.text.empty() || event.searched.find(query.text) != std::string::npos;
}

/// What is not known comes behind everything that is, whatever the order.
template <class T>
bool IsBefore(const std::optional<T>& a, const std::optional<T>& b, bool isDescending) {
  if (!a || !b) return a.has_value() && !b.has_value();
  return isDescending ? *a > *b : *a < *b;
}

template <class Get>
void SortBy(EventSummaries& events, bool isDescending, Get get) {
  std::ranges::stable_sort(events, [isDescending, get](const auto& a, const auto& b) {
    return IsBefore(std::optional(get(*a)), std::optional(get(*b)), isDescending);
  });
}

/// The label that people see.
std::optional<std::string> GetShownLabel(const EventSummary& event) {
  const std::string& label = event.laterLabel.empty() ? event.label : event.laterLabel;
  return label.empty() ? std::nullopt : std::optional(FoldCase(label));
}

void Sort(EventSummaries& events, Key key, bool isDescending) {
  // Of what is the same the latest comes first.
  SortBy(events, true, [](const EventSummary& event) { return event.timeMs; });
  switch (key) {
    case Key::Time:
      return SortBy(events, isDescending, [](const auto& event) { return event.timeMs; });
    case Key::Saved:
      return SortBy(events, isDescending, [](const auto& event) { return event.entry.savedNs; });
    case Key::Label:
      return SortBy(events, isDescending, GetShownLabel);
    case Key::Trigger:
      return SortBy(events, isDescending, [](const auto& event) { return event.trigger; });
    case Key::Speed:
      return SortBy(events, isDescending, [](const auto& event) { return event.maxSpeedKnots; });
    case Key::Peak:
      return SortBy(events, isDescending, [](const auto& event) { return event.maxG; });
    case Key::Length:
      return SortBy(events, isDescending, [](const auto& event) { return event.seconds; });
    case Key::Size:
      return SortBy(events, isDescending, [](const auto& event) { return event.entry.bytes; });
  }
}

}  // namespace

std::optional<EventQuery> ParseQuery(const Request& request, std::string& problem) {
  EventQuery query;
  for (const auto& [name, value] : request.query) {
    const auto parameter = std::ranges::find(Parameters, name, &Parameter::name);
    if (parameter == Parameters.end()) {
      problem = fmt::format("{}: there is no such parameter", ToHeaderText(name));
      return std::nullopt;
    }
    if (parameter->read(value, query)) continue;
    problem = fmt::format("{}: \"{}\" is wrong; {} is right", name, ToHeaderText(value), parameter->right);
    return std::nullopt;
  }
  return query;
}

std::string AnswerQuery(const EventQuery& query, const EventIndex::Snapshot& snapshot) {
  EventSummaries events;
  std::ranges::copy_if(*snapshot.events, std::back_inserter(events),
                       [&query](const auto& event) { return Fits(*event, query); });
  Sort(events, query.sort, query.isDescending);
  Kbase::Json::Object head;
  head["total"] = snapshot.events->size();
  head["matching"] = events.size();
  head["offset"] = query.offset;
  head["looking"] = snapshot.isFirstLook;
  head["directory"] = snapshot.directory;
  head["problem"] = snapshot.problem;
  std::string text = Kbase::Json::Print(head);
  text.pop_back();
  text += ",\"events\":[";
  const std::size_t first = std::min(query.offset, events.size());
  const std::size_t last = first + std::min(query.limit, events.size() - first);
  for (std::size_t i = first; i < last; ++i) {
    if (i != first) text += ',';
    text += events[i]->json;
  }
  return text + "]}";
}

}  // namespace Tavi::Web
