// Ends connections whose next request does not come.
#include "Fleet/Web/ConnectionWatch.h"

#include <sys/socket.h>

namespace Tavi::Web {

ConnectionWatch::ConnectionWatch(std::chrono::milliseconds patience)
    : IThread("HTTP-WATCH", OnFailure::GoOn), m_patience(patience) {}

void ConnectionWatch::Add(int socket) {
  const std::lock_guard lock(m_mutex);
  m_since[socket] = Clock::now();
}

void ConnectionWatch::NoteRequest(int socket) {
  Remove(socket);
}

void ConnectionWatch::Remove(int socket) {
  const std::lock_guard lock(m_mutex);
  m_since.erase(socket);
}

void ConnectionWatch::Run() {
  if (WaitForCancel(m_patience / 8)) return;
  const std::lock_guard lock(m_mutex);
  const auto latest = Clock::now() - m_patience;
  std::erase_if(m_since, [latest](const auto& entry) {
    // Its thread sees the end and closes it.
    return entry.second < latest && ::shutdown(entry.first, SHUT_RDWR) == 0;
  });
}

}  // namespace Tavi::Web
