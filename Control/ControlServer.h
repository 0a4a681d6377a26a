// The control socket's server: one thread for every client.
#pragma once

#include <poll.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Control/ControlConnection.h"
#include "Control/ControlHandler.h"
#include "Control/ControlLimits.h"
#include "Control/ControlSocket.h"
#include "Control/ReplyMailbox.h"
#include "Kbase/Interfaces/IThread.h"

namespace Tavi::Recorder {

/// Owns the socket, its clients and the thread "CONTROL", which reads requests, calls the handler and sends what the
/// handler answers. Only clients of this process's own user, of root and, if one is named, of a group are served. The
/// destructor ends the thread behind the call to the handler that may be under way, sends what has been answered as far
/// as that does not block, closes everything and removes the socket.
class ControlServer final : public Kbase::Interfaces::IThread {
 public:
  /// `handler` is borrowed for the server's life.
  explicit ControlServer(ControlHandler& handler, const ControlLimits& limits = {});
  ~ControlServer() override;

  /// Members of it are served, too, and the socket is its. To be called before Open.
  void ServeGroup(gid_t group);

  /// Listens at `path` and starts serving. False, with one sentence in `problem`, when that cannot be; see
  /// ControlSocket::Open. Call it once.
  [[nodiscard]] bool Open(const std::string& path, std::string& problem);

 protected:
  void Run() override;
  void RunAfter() override;
  void Stopping() override;

 private:
  using TimePoint = ControlConnection::TimePoint;

  void FillPollSet(TimePoint now);
  [[nodiscard]] int GetPollTimeoutMs(TimePoint now) const;
  void Deliver(std::vector<ReplyMailbox::Letter> letters, TimePoint now);
  void Serve(std::uint64_t number, ControlConnection& connection, short seen, TimePoint now);
  void HandleRequest(std::uint64_t number, ControlConnection& connection, const std::string& line, TimePoint now);
  void Accept(TimePoint now);
  [[nodiscard]] bool IsServed(int socketFd) const;
  void Admit(Ksystem::FileUtils::UniqueFd socket, TimePoint now);
  void RemoveEnded(TimePoint now);
  void NoteFault(const std::string& reason, TimePoint now);

  ControlHandler& m_handler;
  const ControlLimits m_limits;
  std::optional<gid_t> m_group;
  ControlSocket m_listener;
  const std::shared_ptr<ReplyMailbox> m_mailbox;
  /// By number, counted from 1 and never used twice: an answer that comes late meets nobody else.
  std::map<std::uint64_t, ControlConnection> m_connections;
  std::uint64_t m_lastNumber = 0;
  /// The mailbox, the listener, then the connections in their order.
  std::vector<pollfd> m_pollSet;
  /// While the system has no descriptor to give.
  TimePoint m_acceptAgain{};
  TimePoint m_faultTold{};
  unsigned int m_faults = 0;
};

}  // namespace Tavi::Recorder
