// One connection to a recorder: connecting, a request out, a line back, each with its patience.
#include "Control/Conversation.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>

#include "Control/Protocol.h"

namespace Tavi::Recorder {
namespace {

using Ksystem::FileUtils::UniqueFd;
using std::chrono::milliseconds;

constexpr int TellEveryMs = 1000;
/// How often connecting is tried again: while the recorder is not there yet, or its backlog is full.
constexpr int RetryMs = 20;
constexpr const char* Silence = "it does not answer in time";

std::string DescribeConnectError() {
  if (errno == ENOENT) return "there is no such socket; is the recorder running?";
  if (errno == ECONNREFUSED) return "nobody listens there any more; is the recorder running?";
  return std::strerror(errno);
}

}  // namespace

Conversation::Conversation(const Patience& patience)
    : m_onWait(patience.onWait), m_connectDeadline(m_start + patience.connect) {
  if (patience.timeout) m_deadline = m_start + *patience.timeout;
}

std::string Conversation::Connect(const sockaddr_un& address) {
  m_socket = UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!m_socket.IsValid()) return std::strerror(errno);
  while (::connect(m_socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    const bool isAbsent = errno == ENOENT || errno == ECONNREFUSED;
    const bool mayCome = isAbsent && Clock::now() < m_connectDeadline && GetRemainingMs() != 0;
    if (!mayCome && errno != EAGAIN && errno != EINTR) return DescribeConnectError();
    if (GetRemainingMs() == 0) return Silence;
    ::poll(nullptr, 0, RetryMs);
    Tell();
  }
  return {};
}

std::string Conversation::Send(const std::string& line) {
  for (std::size_t sent = 0; sent < line.size();) {
    const ssize_t size = ::send(m_socket.Get(), line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
    if (size > 0) {
      sent += static_cast<std::size_t>(size);
    } else if (errno == EPIPE || errno == ECONNRESET) {
      return {};
    } else if (errno != EAGAIN && errno != EINTR) {
      return std::strerror(errno);
    } else if (!WaitFor(POLLOUT)) {
      return Silence;
    }
  }
  return {};
}

std::string Conversation::Receive(std::string& line, std::string& rest) {
  std::array<char, 16 * 1024> chunk;
  while (line.size() <= MaxReplyBytes) {
    if (!WaitFor(POLLIN)) return Silence;
    const ssize_t size = ::recv(m_socket.Get(), chunk.data(), chunk.size(), 0);
    if (size == 0 || (size < 0 && errno == ECONNRESET)) return "it closed the connection without a reply";
    if (size < 0 && errno != EAGAIN && errno != EINTR) return std::strerror(errno);
    if (size < 0) continue;
    auto* const received = chunk.data() + size;
    auto* const end = std::find(chunk.data(), received, '\n');
    line.append(chunk.data(), end);
    if (end == received) continue;
    rest.assign(end + 1, received);
    return {};
  }
  return "its reply is longer than a recorder's";
}

/// -1 for no end, as poll() takes it.
int Conversation::GetRemainingMs() const {
  if (!m_deadline) return -1;
  const auto left = std::chrono::ceil<milliseconds>(*m_deadline - Clock::now()).count();
  return static_cast<int>(std::clamp<long long>(left, 0, INT_MAX));
}

/// As long, but no longer than until somebody is to be told that this waits.
int Conversation::GetNapMs() const {
  const int remaining = GetRemainingMs();
  const bool isLonger = remaining < 0 || remaining > TellEveryMs;
  return m_onWait && isLonger ? TellEveryMs : remaining;
}

/// Once a second.
void Conversation::Tell() {
  const auto waited = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - m_start);
  if (m_onWait && waited > m_told) m_onWait(m_told = waited);
}

/// False when the time is over.
bool Conversation::WaitFor(short events) {
  pollfd waiting{m_socket.Get(), events, 0};
  while (true) {
    const int nap = GetNapMs();
    const int ready = ::poll(&waiting, 1, nap);
    if (ready > 0 || (ready < 0 && errno != EINTR)) return true;
    if (GetRemainingMs() == 0) return false;
    if (ready == 0) Tell();
  }
}

}  // namespace Tavi::Recorder
