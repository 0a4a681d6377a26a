// One client of the control socket: its half lines, its unread replies, its time limits.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "Control/ControlLimits.h"
#include "Control/Reply.h"
#include "Ksystem/FileUtils/UniqueFd.h"

namespace Tavi::Recorder {

/// Owns a non-blocking stream socket. Thread-bound; no operation blocks. It only ever reads as far as the next request
/// and hands that out when the client has read its replies, so what it holds is bounded on both sides.
class ControlConnection {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  /// `limits` is borrowed for the connection's life.
  ControlConnection(Ksystem::FileUtils::UniqueFd socket, const ControlLimits& limits, TimePoint now);

  [[nodiscard]] int GetFd() const { return m_socket.Get(); }
  /// What poll() is to watch for.
  [[nodiscard]] short GetEvents() const;
  /// Acts on what poll() has seen.
  void HandleEvents(short seen, TimePoint now);

  /// True while TakeRequest has something to give.
  [[nodiscard]] bool HasRequest() const;
  /// The next request without its line end, which from now on is unanswered.
  std::optional<std::string> TakeRequest(TimePoint now);
  /// Sends the answer to one unanswered request; `line` has its end.
  void Answer(const std::string& line, TimePoint now);
  /// Sends `line` as Answer does, and from then on takes no more requests: the connection leaves when that is written.
  /// Sends `refusal` instead, and stays, when the client waits for something else or has sent something else.
  void HandOver(const std::string& line, const std::string& refusal, Reply::Take take, TimePoint now);
  /// True when Leave may be called.
  [[nodiscard]] bool IsLeaving() const { return m_take && m_output.empty() && !m_failed && !m_hungUp; }
  /// Gives the socket to whom it was handed over to; the connection is over.
  void Leave();
  /// Sends an error and closes once that is read; nothing more is taken from this client.
  void Refuse(const std::string& sentence, TimePoint now);

  /// Cuts the client off when a time limit is over.
  void CheckTime(TimePoint now);
  /// When CheckTime is due next; empty while the recorder has the next word.
  [[nodiscard]] std::optional<TimePoint> GetDeadline() const;

  /// True when the connection is to be closed.
  [[nodiscard]] bool IsOver() const;
  /// Why the client was cut off; empty for one that ended by itself.
  [[nodiscard]] const std::string& GetFault() const { return m_fault; }

 private:
  [[nodiscard]] bool HasLine() const { return m_lineEnd != std::string::npos; }
  [[nodiscard]] bool IsMidLine() const { return !HasLine() && !m_input.empty(); }
  void Receive(TimePoint now);
  void EndInput(TimePoint now);
  void Queue(const std::string& line, TimePoint now);
  void Flush(TimePoint now);
  void CutOff(const std::string& reason);

  Ksystem::FileUtils::UniqueFd m_socket;
  const ControlLimits& m_limits;
  std::string m_input;
  /// Of the first line end in m_input.
  std::size_t m_lineEnd = std::string::npos;
  std::string m_output;
  std::size_t m_unanswered = 0;
  /// The last progress: what the time limits count from. Bytes within a line are none.
  TimePoint m_since;
  /// The client sends nothing more, but may still read.
  bool m_inputEnded = false;
  /// The client reads nothing more, but may have sent something.
  bool m_hungUp = false;
  bool m_refused = false;
  /// Who gets the socket when the output is written; empty for most.
  Reply::Take m_take;
  bool m_failed = false;
  std::string m_fault;
};

}  // namespace Tavi::Recorder
