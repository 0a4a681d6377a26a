// A recorder's control socket with streams of the test's.
#include "Web/FakeRecorder.h"

#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <stdexcept>
#include <utility>

#include "Control/SocketAddress.h"
#include "Support/Fixtures.h"

namespace Tavi::Testing {
namespace {

constexpr const char* LiveReply =
    R"({"ok":true,"streams":[{"stream":"camera0","name":"Front Left","codec":"h264","fps":30},)"
    R"({"stream":"camera1","name":"cab","codec":"h264","fps":30},{"stream":"audio","codec":"mp3"},{"stream":"gps"}],)"
    R"("steadyNs":5,"time":"2026-11-21T13:40:05.123Z"})"
    "\n";
constexpr const char* StatusReply = "{\"ok\":true,\"state\":\"recording\"}\n";

}  // namespace

FakeRecorder::FakeRecorder(std::string socketPath) : m_path(std::move(socketPath)) {
  std::string problem;
  const auto address = Recorder::BuildSocketAddress(m_path, problem);
  m_listener = Ksystem::FileUtils::UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ::unlink(m_path.c_str());
  if (!address || ::bind(m_listener.Get(), reinterpret_cast<const sockaddr*>(&*address), sizeof(*address)) != 0 ||
      ::listen(m_listener.Get(), SOMAXCONN) != 0) {
    throw std::runtime_error("cannot listen at " + m_path + ": " + problem);
  }
  m_thread = std::thread([this, listener = m_listener.Get()] { Serve(listener); });
}

FakeRecorder::~FakeRecorder() {
  ::shutdown(m_listener.Get(), SHUT_RDWR);
  m_thread.join();
  ::unlink(m_path.c_str());
}

void FakeRecorder::Serve(int listener) {
  while (true) {
    Ksystem::FileUtils::UniqueFd client(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    if (!client.IsValid()) return;
    Answer(std::move(client));
  }
}

void FakeRecorder::Answer(Ksystem::FileUtils::UniqueFd client) {
  std::string line;
  for (char c = 0; c != '\n' && ::read(client.Get(), &c, 1) == 1;) line += c;
  const bool isLive = line.find("\"live\"") != std::string::npos;
  const std::string reply = isLive ? LiveReply : StatusReply;
  const bool isSent = Ksystem::FileUtils::WriteAll(client.Get(), reply.data(), reply.size());
  const std::lock_guard lock(m_mutex);
  if (isLive && isSent) m_clients.push_back(std::move(client));
}

bool FakeRecorder::WaitForClients(std::size_t count) {
  return WaitUntil([&] { return CountClients() == count; });
}

std::size_t FakeRecorder::CountClients() {
  const std::lock_guard lock(m_mutex);
  // Whoever has left is known by that.
  std::erase_if(m_clients, [](const auto& client) {
    char c = 0;
    return ::recv(client.Get(), &c, 1, MSG_DONTWAIT) == 0;
  });
  return m_clients.size();
}

void FakeRecorder::Send(Recorder::LiveHeader header, std::span<const std::uint8_t> payload) {
  header.payloadBytes = static_cast<std::uint32_t>(payload.size());
  const auto bytes = Recorder::EncodeLiveHeader(header);
  const std::lock_guard lock(m_mutex);
  for (const auto& client : m_clients) {
    if (::send(client.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_MORE) < 0) continue;
    for (auto rest = payload; !rest.empty();) {
      const ssize_t sent = ::send(client.Get(), rest.data(), rest.size(), MSG_NOSIGNAL);
      if (sent <= 0) break;
      rest = rest.subspan(static_cast<std::size_t>(sent));
    }
  }
}

}  // namespace Tavi::Testing
