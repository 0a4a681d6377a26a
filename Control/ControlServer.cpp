// The control socket's server.
#include "Control/ControlServer.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <exception>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "Control/Protocol.h"
#include "Tavi/GstUtil/Log.h"

namespace Tavi::Recorder {

using Ksystem::FileUtils::UniqueFd;

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds AcceptPause(100);
constexpr milliseconds FaultLogInterval(10'000);
/// Before the connections in the poll set.
constexpr std::size_t FirstConnection = 2;

/// The peer's supplementary groups as they were when it connected (SO_PEERGROUPS, since Linux 4.13).
std::vector<gid_t> GetPeerGroups(int socketFd) {
  std::vector<gid_t> groups;
  socklen_t size = 0;
  // The first call fails and tells how many bytes they are.
  while (::getsockopt(socketFd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) != 0) {
    if (errno != ERANGE || size / sizeof(gid_t) <= groups.size()) return {};
    groups.resize(size / sizeof(gid_t));
  }
  groups.resize(size / sizeof(gid_t));
  return groups;
}

}  // namespace

ControlServer::ControlServer(ControlHandler& handler, const ControlLimits& limits)
    : IThread("CONTROL", OnFailure::GoOn),
      m_handler(handler),
      m_limits(limits),
      m_mailbox(std::make_shared<ReplyMailbox>()) {}

ControlServer::~ControlServer() {
  Stop();
}

void ControlServer::ServeGroup(gid_t group) {
  m_group = group;
  m_listener.ShareWith(group);
}

bool ControlServer::Open(const std::string& path, std::string& problem) {
  if (m_mailbox->GetFd() < 0) {
    problem = fmt::format("no control socket: the system has no eventfd to give: {}", std::strerror(errno));
    return false;
  }
  if (!m_listener.Open(path, problem)) return false;
  if (Start()) return true;
  problem = "no control socket: the system has no thread to give";
  return false;
}

void ControlServer::Stopping() {
  m_mailbox->Wake();
}

void ControlServer::Run() {
  FillPollSet(Clock::now());
  const int ready = ::poll(m_pollSet.data(), m_pollSet.size(), GetPollTimeoutMs(Clock::now()));
  if (ready < 0 && errno != EINTR) {
    Log::Error(fmt::format("the control socket cannot be watched: {}", std::strerror(errno)));
    WaitForCancel(AcceptPause);
  }
  if (ready < 0) return;
  const TimePoint now = Clock::now();
  if (m_pollSet[0].revents != 0) Deliver(m_mailbox->Take(), now);
  std::size_t index = FirstConnection;
  for (auto& [number, connection] : m_connections) Serve(number, connection, m_pollSet[index++].revents, now);
  if (m_pollSet[1].revents != 0) Accept(now);
  RemoveEnded(now);
}

void ControlServer::RunAfter() {
  Deliver(m_mailbox->Close(), Clock::now());
  m_connections.clear();
}

void ControlServer::FillPollSet(TimePoint now) {
  const bool accepting = m_connections.size() < m_limits.clients && now >= m_acceptAgain;
  m_pollSet.clear();
  m_pollSet.push_back({m_mailbox->GetFd(), POLLIN, 0});
  m_pollSet.push_back({accepting ? m_listener.GetFd() : -1, POLLIN, 0});
  for (const auto& [number, connection] : m_connections) {
    m_pollSet.push_back({connection.GetFd(), connection.GetEvents(), 0});
  }
}

int ControlServer::GetPollTimeoutMs(TimePoint now) const {
  std::optional<TimePoint> next;
  const auto consider = [&next](TimePoint time) { next = next ? std::min(*next, time) : time; };
  if (now < m_acceptAgain) consider(m_acceptAgain);
  for (const auto& [number, connection] : m_connections) {
    if (connection.HasRequest()) return 0;
    if (const auto deadline = connection.GetDeadline()) consider(*deadline);
  }
  if (!next) return -1;
  const auto wait = std::chrono::ceil<milliseconds>(*next - now).count();
  return static_cast<int>(std::clamp<long long>(wait, 0, INT_MAX));
}

void ControlServer::Deliver(std::vector<ReplyMailbox::Letter> letters, TimePoint now) {
  for (auto& letter : letters) {
    const auto found = m_connections.find(letter.connection);
    if (found == m_connections.end()) continue;
    if (letter.take) {
      found->second.HandOver(letter.line, letter.refusal, std::move(letter.take), now);
    } else {
      found->second.Answer(letter.line, now);
    }
  }
}

void ControlServer::Serve(std::uint64_t number, ControlConnection& connection, short seen, TimePoint now) {
  connection.HandleEvents(seen, now);
  // One at a time, so that a client with many requests at once takes turns with the others.
  if (const auto line = connection.TakeRequest(now)) HandleRequest(number, connection, *line, now);
  connection.CheckTime(now);
}

void ControlServer::HandleRequest(std::uint64_t number, ControlConnection& connection, const std::string& line,
                                  TimePoint now) {
  std::string problem;
  const auto request = ParseRequest(line, problem);
  if (!request) return connection.Refuse(problem, now);
  const auto id = request->find("id");
  const Reply reply(m_mailbox, number, id == request->end() ? nlohmann::ordered_json() : *id);
  try {
    m_handler.Handle(*request, reply);
  } catch (const std::exception& error) {
    reply.Refuse(fmt::format("the request could not be carried out: {}", error.what()));
  }
}

void ControlServer::Accept(TimePoint now) {
  while (m_connections.size() < m_limits.clients) {
    UniqueFd socket(::accept4(m_listener.GetFd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (socket.IsValid()) {
      Admit(std::move(socket), now);
    } else if (errno == EAGAIN) {
      return;
    } else if (errno != EINTR && errno != ECONNABORTED) {
      // Out of descriptors or memory: the client stays in the backlog, and this thread must not spin over it.
      NoteFault(std::strerror(errno), now);
      m_acceptAgain = now + AcceptPause;
      return;
    }
  }
}

/// By the peer's user and groups as they were when it connected (unix(7), SO_PEERCRED).
bool ControlServer::IsServed(int socketFd) const {
  ucred peer{};
  socklen_t size = sizeof(peer);
  if (::getsockopt(socketFd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return false;
  if (peer.uid == ::geteuid() || peer.uid == 0) return true;
  if (!m_group) return false;
  const auto groups = GetPeerGroups(socketFd);
  return peer.gid == *m_group || std::find(groups.begin(), groups.end(), *m_group) != groups.end();
}

void ControlServer::Admit(UniqueFd socket, TimePoint now) {
  const bool isServed = IsServed(socket.Get());
  ControlConnection connection(std::move(socket), m_limits, now);
  if (isServed) {
    m_connections.emplace(++m_lastNumber, std::move(connection));
    return;
  }
  // A fresh socket has room for one line, so this one need not take a place.
  const char* const others = m_group ? ", root and the group of control.group" : " and root";
  connection.Refuse(fmt::format("only the recorder's own user{} are served", others), now);
  NoteFault("it belongs to another user", now);
}

void ControlServer::RemoveEnded(TimePoint now) {
  for (auto& [number, connection] : m_connections) {
    if (connection.IsLeaving()) connection.Leave();
  }
  std::erase_if(m_connections, [this, now](const auto& entry) {
    const ControlConnection& connection = entry.second;
    if (connection.IsOver() && !connection.GetFault().empty()) NoteFault(connection.GetFault(), now);
    return connection.IsOver();
  });
}

void ControlServer::NoteFault(const std::string& reason, TimePoint now) {
  ++m_faults;
  if (m_faultTold != TimePoint{} && now - m_faultTold < FaultLogInterval) return;
  Log::Warning(fmt::format("{} client(s) of the control socket were turned away, the last one because: {}",
                           std::exchange(m_faults, 0U), reason));
  m_faultTold = now;
}

}  // namespace Tavi::Recorder
