// What one asks the list of events for.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "Fleet/Web/EventIndex.h"
#include "Fleet/Web/Http.h"

namespace Tavi::Web {

/// A part of the list, in an order, of what fits. Plain values.
struct EventQuery {
  enum class Key { Time, Saved, Label, Trigger, Speed, Peak, Length, Size };
  static constexpr std::size_t MostAtOnce = 500;

  std::size_t offset = 0;
  std::size_t limit = 50;
  Key sort = Key::Time;
  bool isDescending = true;
  /// Folded; empty: everything.
  std::string text;
  std::string trigger;
  /// Unix time in milliseconds, both included.
  std::optional<std::int64_t> fromMs;
  std::optional<std::int64_t> toMs;
  std::optional<bool> isProtected;
  /// True: only events of which something is missing; false: only whole ones.
  std::optional<bool> isIncomplete;
};

/// Out of a request's query. Empty, with the parameter, its value and what would be right in `problem`, when something
/// is wrong or unknown.
std::optional<EventQuery> ParseQuery(const Request& request, std::string& problem);

/// `{"total":...,"matching":...,"offset":...,"looking":...,"directory":...,"problem":...,"events":[...]}`.
std::string AnswerQuery(const EventQuery& query, const EventIndex::Snapshot& snapshot);

}  // namespace Tavi::Web
