// A recorder's control socket with streams of the test's.
#pragma once

#include <atomic>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "Control/LiveProtocol.h"
#include "Ksystem/FileUtils/UniqueFd.h"

namespace Tavi::Testing {

/// Answers "live" and "status" on a thread of its own, one connection after the other, and sends what it is told to to
/// whoever has asked for "live". The cameras are called "Front Left" and "cab".
class FakeRecorder {
 public:
  /// Indices into its streams.
  enum Stream : std::uint8_t { Camera0, Camera1, Sound, Gps };

  explicit FakeRecorder(std::string socketPath);
  ~FakeRecorder();
  FakeRecorder(const FakeRecorder&) = delete;
  FakeRecorder& operator=(const FakeRecorder&) = delete;

  bool WaitForClients(std::size_t count);
  std::size_t CountClients();
  /// Blocks while a client does not take it.
  void Send(Recorder::LiveHeader header, std::span<const std::uint8_t> payload);

 private:
  void Serve(int listener);
  void Answer(Ksystem::FileUtils::UniqueFd client);

  const std::string m_path;
  Ksystem::FileUtils::UniqueFd m_listener;
  std::mutex m_mutex;
  std::vector<Ksystem::FileUtils::UniqueFd> m_clients;
  std::thread m_thread;
};

}  // namespace Tavi::Testing
