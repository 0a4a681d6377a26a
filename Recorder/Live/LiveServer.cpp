// What the sources deliver, to whoever watches in another process.
#include "Recorder/Live/LiveServer.h"

#include <sys/eventfd.h>

#include <cerrno>
#include <cstring>
#include <list>
#include <utility>

#include "Control/LiveProtocol.h"
#include "Tavi/GstUtil/Log.h"

namespace Tavi::Recorder::Live {
namespace {

using Clock = std::chrono::steady_clock;

/// Less than the time from one frame to the next.
constexpr int RoundMs = 20;

}  // namespace

LiveServer::LiveServer(GetRing getRing, const LiveLimits& limits)
    : IThread("LIVE", OnFailure::GoOn),
      m_getRing(std::move(getRing)),
      m_limits(limits),
      m_wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

LiveServer::~LiveServer() {
  Stop();
}

std::shared_ptr<void> LiveServer::TakePlace() {
  const auto taken = m_taken;
  for (std::size_t before = *taken; before < MaxLiveClients;) {
    if (!taken->compare_exchange_weak(before, before + 1)) continue;
    return {taken.get(), [taken](void*) { --*taken; }};
  }
  return nullptr;
}

void LiveServer::Add(Ksystem::FileUtils::UniqueFd socket, const std::vector<Pipeline::PipelineType>& streams,
                     std::shared_ptr<void> place) {
  std::list<LiveConnection> newcomer;
  newcomer.emplace_back(std::move(socket), streams, std::move(place), m_limits, Clock::now());
  {
    const std::lock_guard lock(m_mutex);
    m_newcomers.splice(m_newcomers.end(), newcomer);
  }
  Wake();
}

LiveServer::Counts LiveServer::Read() const {
  return {*m_taken, m_dropped};
}

void LiveServer::Stopping() {
  Wake();
}

/// It fails only when the counter is full, and then it is readable already.
void LiveServer::Wake() {
  static_cast<void>(::eventfd_write(m_wake.Get(), 1));
}

void LiveServer::Run() {
  m_pollSet.clear();
  m_pollSet.push_back({m_wake.Get(), POLLIN, 0});
  for (const auto& connection : m_connections) m_pollSet.push_back({connection.GetFd(), connection.GetEvents(), 0});
  if (::poll(m_pollSet.data(), m_pollSet.size(), GetPollTimeoutMs()) < 0) {
    if (errno == EINTR) return;
    Log::Error(std::string("the live stream's clients cannot be watched: ") + std::strerror(errno));
    WaitForCancel(m_limits.lag);
    return;
  }
  const auto now = Clock::now();
  auto seen = m_pollSet.begin();
  for (auto& connection : m_connections) {
    connection.HandleEvents((++seen)->revents);
    connection.Serve(m_getRing, now);
    m_dropped += connection.TakeDropped();
  }
  RemoveEnded();
  TakeNewcomers();
}

void LiveServer::RunAfter() {
  m_connections.clear();
}

void LiveServer::TakeNewcomers() {
  eventfd_t ignored = 0;
  static_cast<void>(::eventfd_read(m_wake.Get(), &ignored));
  const std::lock_guard lock(m_mutex);
  m_connections.splice(m_connections.end(), m_newcomers);
}

void LiveServer::RemoveEnded() {
  std::erase_if(m_connections, [](const LiveConnection& connection) {
    if (!connection.GetFault().empty()) {
      Log::Warning("a client of the live stream was cut off: " + connection.GetFault());
    }
    return connection.IsOver();
  });
}

/// Without end where nobody is to be served, unless nothing could tell of a newcomer.
int LiveServer::GetPollTimeoutMs() const {
  return m_connections.empty() && m_wake.IsValid() ? -1 : RoundMs;
}

}  // namespace Tavi::Recorder::Live
