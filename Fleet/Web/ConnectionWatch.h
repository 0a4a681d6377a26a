// Ends connections whose next request does not come.
#pragma once

#include <chrono>
#include <map>
#include <mutex>

#include "Kbase/Interfaces/IThread.h"

namespace Tavi::Web {

/// The HTTP library counts the time without a byte; a client that sends one byte at a time would keep its connection
/// for ever. Borrows sockets between Add and Remove and shuts down those that are late. Thread-safe; its thread is
/// "HTTP-WATCH".
class ConnectionWatch final : public Kbase::Interfaces::IThread {
 public:
  explicit ConnectionWatch(std::chrono::milliseconds patience);
  ~ConnectionWatch() override { Stop(); }

  /// A connection, which from now on is to send a request.
  void Add(int socket);
  /// The request is there: as long as the answer takes, nobody is late.
  void NoteRequest(int socket);
  /// The answer has been given: the next request is to come.
  void NoteAnswer(int socket) { Add(socket); }
  /// To be called before the socket is closed.
  void Remove(int socket);

 protected:
  void Run() override;

 private:
  using Clock = std::chrono::steady_clock;
  const std::chrono::milliseconds m_patience;
  std::mutex m_mutex;
  /// Since when the socket is to send a request.
  std::map<int, Clock::time_point> m_since;
};

}  // namespace Tavi::Web
