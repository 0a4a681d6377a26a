// A control server with a handler of the test's, and clients that do as they please.
#pragma once

#include <sys/socket.h>
#include <sys/time.h>

#include <atomic>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>

#include "Control/ControlServer.h"
#include "Control/SocketAddress.h"
#include "Ksystem/FileUtils/UniqueFd.h"
#include "Support/Fixtures.h"

namespace Tavi::Testing {

constexpr std::size_t LargeBytes = 600'000;

/// Has an answer for some commands and the request itself for others; keeps the answer to "stop", gives none to "drop",
/// and fails at "throw".
class TestHandler final : public Recorder::ControlHandler {
 public:
  void Handle(const nlohmann::ordered_json& request, Recorder::Reply reply) override {
    const std::lock_guard lock(m_mutex);
    ++handled;
    const std::string command = request["command"];
    if (command == "power-fail") return reply.Refuse("the power is\x1B[31m fine");
    if (command == "quit") reply({}), atQuit();
    if (command == "throw") static_cast<void>(request.at("none"));
    if (command == "stop") return m_kept.push_back(reply);
    if (command != "drop" && command != "quit") reply(m_replies.contains(command) ? m_replies[command] : Json(request));
  }
  std::vector<Recorder::Reply> GetKept() {
    const std::lock_guard lock(m_mutex);
    return m_kept;
  }

  void SetReply(const std::string& command, const nlohmann::ordered_json& reply) {
    const std::lock_guard lock(m_mutex);
    m_replies[command] = reply;
  }

  std::atomic<int> handled{0};
  std::function<void()> atQuit;

 private:
  using Json = nlohmann::ordered_json;
  std::mutex m_mutex;
  std::vector<Recorder::Reply> m_kept;
  std::map<std::string, Json> m_replies{
      {"status", Json::parse(R"({"camera0":{"fps":30,"tags":["a","ü"]},"free":null,"events":[{"id":"a"}]})")},
      {"metrics", {{"text", "tavi_events_total 3\n"}}},
      {"large", {{"text", std::string(LargeBytes, 'x')}}},
  };
};

inline int OnSocket(int (*action)(int, const sockaddr*, socklen_t), int socketFd, const std::string& path) {
  std::string problem;
  const auto address = Recorder::BuildSocketAddress(path, problem);
  return action(socketFd, reinterpret_cast<const sockaddr*>(&*address), sizeof(*address));
}

/// What a crash leaves.
inline void LeaveStaleSocket(const std::string& path) {
  ASSERT_EQ(OnSocket(::bind, Ksystem::FileUtils::UniqueFd(::socket(AF_UNIX, SOCK_STREAM, 0)).Get(), path), 0);
}

/// Waits up to 20 s for whatever it waits for.
class RawClient {
 public:
  explicit RawClient(const std::string& path) : m_socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const timeval limit{20, 0};
    for (const int of : {SO_RCVTIMEO, SO_SNDTIMEO}) ::setsockopt(m_socket.Get(), SOL_SOCKET, of, &limit, sizeof(limit));
    static_cast<void>(OnSocket(::connect, m_socket.Get(), path));
  }
  /// False when the server has closed.
  bool Send(const std::string& text) const {
    return ::send(m_socket.Get(), text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
  }
  /// Without its end, or what there was when the server closed.
  std::string ReadLine() {
    while (m_read.find('\n') == std::string::npos && !m_closed) {
      char chunk[65536];
      const auto size = ::recv(m_socket.Get(), chunk, sizeof(chunk), 0);
      if (size > 0) m_read.append(chunk, static_cast<std::size_t>(size));
      m_closed = size == 0 || (size < 0 && errno == ECONNRESET);
      if (size < 0 && !m_closed) return "timeout";
    }
    const auto end = std::min(m_read.find('\n'), m_read.size());
    std::string line = m_read.substr(0, end);
    m_read.erase(0, end + 1);
    return line;
  }
  std::string Ask(const std::string& request) { return Send(request) ? ReadLine() : "not sent"; }
  /// The server has closed, and nothing is left to be read.
  bool IsCutOff() { return ReadLine().empty() && m_closed; }
  void EndSending() const { ::shutdown(m_socket.Get(), SHUT_WR); }

 private:
  Ksystem::FileUtils::UniqueFd m_socket;
  std::string m_read;
  bool m_closed = false;
};

}  // namespace Tavi::Testing
