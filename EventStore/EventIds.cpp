// Which ids events have.
#include "EventStore/EventIds.h"

namespace Tavi::EventStore {

void EventIds::Take(const std::string& id) {
  const std::lock_guard lock(m_mutex);
  m_taken.insert(id);
}

std::string EventIds::New() {
  const std::lock_guard lock(m_mutex);
  std::string id = m_draw();
  while (!m_taken.insert(id).second) id = m_draw();
  return id;
}

}  // namespace Tavi::EventStore
