// One client of the control socket.
#include "Control/ControlConnection.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <nlohmann/json.hpp>
#include <utility>

namespace Tavi::Recorder {

ControlConnection::ControlConnection(Ksystem::FileUtils::UniqueFd socket, const ControlLimits& limits, TimePoint now)
    : m_socket(std::move(socket)), m_limits(limits), m_since(now) {}

short ControlConnection::GetEvents() const {
  short events = 0;
  if (!HasLine() && !m_inputEnded && !m_refused && !m_take) events |= POLLIN;
  if (!m_output.empty()) events |= POLLOUT;
  return events;
}

void ControlConnection::HandleEvents(short seen, TimePoint now) {
  if ((seen & (POLLHUP | POLLERR)) != 0) {
    m_hungUp = true;
    m_output.clear();
  }
  if ((seen & POLLIN) != 0) Receive(now);
  if ((seen & POLLOUT) != 0) Flush(now);
}

void ControlConnection::Receive(TimePoint now) {
  std::array<char, 16 * 1024> chunk;
  const ssize_t size = ::recv(m_socket.Get(), chunk.data(), chunk.size(), 0);
  if (size == 0) return EndInput(now);
  if (size < 0) {
    m_failed = errno != EAGAIN && errno != EINTR;
    return;
  }
  if (m_input.empty()) m_since = now;
  const std::size_t searched = m_input.size();
  m_input.append(chunk.data(), static_cast<std::size_t>(size));
  m_lineEnd = m_input.find('\n', searched);
  const std::size_t lineBytes = HasLine() ? m_lineEnd + 1 : m_input.size();
  if (lineBytes > MaxRequestBytes) {
    Refuse("a request may have " + std::to_string(MaxRequestBytes) + " bytes, its line end included", now);
  }
}

void ControlConnection::EndInput(TimePoint now) {
  m_inputEnded = true;
  if (IsMidLine()) Refuse("the request has no line end", now);
}

bool ControlConnection::HasRequest() const {
  return HasLine() && !m_refused && (m_hungUp || (m_output.empty() && m_unanswered < m_limits.unanswered));
}

std::optional<std::string> ControlConnection::TakeRequest(TimePoint now) {
  if (!HasRequest()) return std::nullopt;
  std::string line = m_input.substr(0, m_lineEnd);
  m_input.erase(0, m_lineEnd + 1);
  m_lineEnd = m_input.find('\n');
  m_since = now;
  ++m_unanswered;
  if (m_inputEnded && IsMidLine()) Refuse("the last request has no line end", now);
  return line;
}

void ControlConnection::Answer(const std::string& line, TimePoint now) {
  if (m_unanswered > 0) --m_unanswered;
  if (!m_refused) Queue(line, now);
}

void ControlConnection::HandOver(const std::string& line, const std::string& refusal, Reply::Take take, TimePoint now) {
  const bool isAlone = m_unanswered <= 1 && m_input.empty();
  if (isAlone && !m_refused) m_take = std::move(take);
  Answer(isAlone ? line : refusal, now);
}

void ControlConnection::Leave() {
  m_failed = true;
  std::exchange(m_take, {})(std::move(m_socket));
}

void ControlConnection::Refuse(const std::string& sentence, TimePoint now) {
  Queue(BuildLine(BuildError(sentence)), now);
  m_refused = true;
}

void ControlConnection::Queue(const std::string& line, TimePoint now) {
  if (m_hungUp || m_failed) return;
  if (m_output.empty()) m_since = now;
  m_output += line;
  Flush(now);
  if (m_output.size() > m_limits.outputBytes) CutOff("it does not read its replies");
}

void ControlConnection::Flush(TimePoint now) {
  const ssize_t size = ::send(m_socket.Get(), m_output.data(), m_output.size(), MSG_NOSIGNAL);
  if (size >= 0) {
    m_output.erase(0, static_cast<std::size_t>(size));
    m_since = now;
  } else if (errno != EAGAIN && errno != EINTR) {
    // It may have sent more before it left; reading finds the end.
    m_hungUp = true;
    m_output.clear();
  }
}

std::optional<ControlConnection::TimePoint> ControlConnection::GetDeadline() const {
  if (!m_output.empty()) return m_since + m_limits.readTime;
  if (IsMidLine()) return m_since + m_limits.lineTime;
  if (m_unanswered == 0) return m_since + m_limits.idleTime;
  return std::nullopt;
}

void ControlConnection::CheckTime(TimePoint now) {
  const auto deadline = GetDeadline();
  if (!deadline || now < *deadline) return;
  if (!m_output.empty()) return CutOff("it does not read its replies");
  if (IsMidLine()) return CutOff("it does not finish its request");
  m_failed = true;  // idle: no fault of anybody's
}

void ControlConnection::CutOff(const std::string& reason) {
  m_failed = true;
  m_fault = reason;
}

bool ControlConnection::IsOver() const {
  if (m_failed) return true;
  if (m_refused) return m_output.empty();
  if (m_take) return m_hungUp;
  if (!m_inputEnded || HasLine()) return false;
  return m_hungUp || (m_unanswered == 0 && m_output.empty());
}

}  // namespace Tavi::Recorder
