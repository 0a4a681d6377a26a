// Which ids events have.
#pragma once

#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <utility>

#include "EventStore/EventName.h"

namespace Tavi::EventStore {

/// Gives each new event an id that no other one has that is known here. Who asks for an event is told its id at once
/// and looks for it later; and what is left of an interrupted event is put in its place by it. A disk is asked for
/// nothing. Thread-safe.
class EventIds {
 public:
  /// Gives a random id, which may be one that is taken.
  using Draw = std::function<std::string()>;

  explicit EventIds(Draw draw = NewEventId) : m_draw(std::move(draw)) {}

  /// An event has it.
  void Take(const std::string& id);
  /// One that nobody has; it is taken from then on.
  [[nodiscard]] std::string New();

 private:
  const Draw m_draw;
  std::mutex m_mutex;
  std::set<std::string> m_taken;
};

}  // namespace Tavi::EventStore
