// What the sources deliver, to whoever watches in another process.
#pragma once

#include <poll.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <vector>

#include "Kbase/Interfaces/IThread.h"
#include "Ksystem/FileUtils/UniqueFd.h"
#include "Recorder/Live/LiveConnection.h"
#include "Tavi/Pipeline/PipelineType.h"

namespace Tavi::Recorder::Live {

/// Owns the thread "LIVE" and its clients, which it serves from the rings: 50 times a second, and when a full socket
/// has room again. Without clients it sleeps. No producer ever waits for it, and no ring is held while a client is
/// written to. The acquisition may come and go meanwhile. TakePlace, Add and Read are thread-safe; the destructor ends
/// the thread and closes every connection.
class LiveServer final : public Kbase::Interfaces::IThread {
 public:
  struct Counts {
    std::size_t clients = 0;
    /// Entries that a client asked for and did not get, by being slow or because they had no usable bytes.
    std::uint64_t dropped = 0;
  };

  explicit LiveServer(GetRing getRing, const LiveLimits& limits = {});
  ~LiveServer() override;

  /// One of MaxLiveClients places, free again when the last share of it is let go; null while all are taken.
  [[nodiscard]] std::shared_ptr<void> TakePlace();
  /// A client that has its reply and wants `streams`, in the order of their numbers.
  void Add(Ksystem::FileUtils::UniqueFd socket, const std::vector<Pipeline::PipelineType>& streams,
           std::shared_ptr<void> place);
  [[nodiscard]] Counts Read() const;

 protected:
  void Run() override;
  void RunAfter() override;
  void Stopping() override;

 private:
  void TakeNewcomers();
  void RemoveEnded();
  [[nodiscard]] int GetPollTimeoutMs() const;
  void Wake();

  const GetRing m_getRing;
  const LiveLimits m_limits;
  const Ksystem::FileUtils::UniqueFd m_wake;
  /// Outlives this where a place does.
  const std::shared_ptr<std::atomic<std::size_t>> m_taken = std::make_shared<std::atomic<std::size_t>>(0);
  std::atomic<std::uint64_t> m_dropped{0};
  /// Guards m_newcomers; nothing else happens under it.
  std::mutex m_mutex;
  std::list<LiveConnection> m_newcomers;
  std::list<LiveConnection> m_connections;
  /// The wake-up, then the connections in their order.
  std::vector<pollfd> m_pollSet;
};

}  // namespace Tavi::Recorder::Live
