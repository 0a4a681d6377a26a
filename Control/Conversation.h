// One connection to a recorder: connecting, a request out, a line back, each with its patience.
#pragma once

#include <sys/un.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "Control/ControlClient.h"
#include "Ksystem/FileUtils/UniqueFd.h"

namespace Tavi::Recorder {

/// Owns a non-blocking stream socket. Every operation gives an empty text or the reason for which it failed.
/// Thread-bound.
class Conversation {
 public:
  /// `patience` is borrowed for the conversation's life; its time begins now.
  explicit Conversation(const Patience& patience);

  std::string Connect(const sockaddr_un& address);
  /// A recorder that has closed already is no failure: whoever refuses a client at once tells why before it closes.
  std::string Send(const std::string& line);
  /// The next line, without its end, which must not be longer than a reply may be. `rest` has what was received behind
  /// it.
  std::string Receive(std::string& line, std::string& rest);
  /// The connection, for whoever goes on with it.
  Ksystem::FileUtils::UniqueFd Release() { return std::move(m_socket); }

 private:
  using Clock = std::chrono::steady_clock;

  [[nodiscard]] int GetRemainingMs() const;
  [[nodiscard]] int GetNapMs() const;
  void Tell();
  [[nodiscard]] bool WaitFor(short events);

  const std::function<void(std::chrono::seconds)>& m_onWait;
  const Clock::time_point m_start = Clock::now();
  const Clock::time_point m_connectDeadline;
  std::chrono::seconds m_told{0};
  Ksystem::FileUtils::UniqueFd m_socket;
  std::optional<Clock::time_point> m_deadline;
};

}  // namespace Tavi::Recorder
