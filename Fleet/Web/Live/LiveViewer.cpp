// One browser's place at the live streams.
#include "Fleet/Web/Live/LiveViewer.h"

#include <utility>

#include "Fleet/Web/Live/Fanout.h"

namespace Tavi::Web {

LiveViewer::LiveViewer(std::shared_ptr<Fanout> fanout) : m_fanout(std::move(fanout)) {}

LiveViewer::~LiveViewer() {
  m_fanout->Remove(this);
}

MessagePtr LiveViewer::Read(std::chrono::milliseconds timeout) {
  bool isBehind = false;
  {
    const std::lock_guard lock(m_mutex);
    isBehind = m_isBehind && !m_hasEnded;
  }
  if (isBehind) m_fanout->Rejoin(*this);
  std::unique_lock lock(m_mutex);
  m_changed.wait_for(lock, timeout, [this] { return !m_queue.empty() || m_hasEnded; });
  return m_queue.empty() || m_hasEnded ? nullptr : TakeLocked();
}

MessagePtr LiveViewer::TakeLocked() {
  MessagePtr message = std::move(m_queue.front().message);
  m_queue.pop_front();
  m_bytes -= message->bytes.size();
  if (message->kind != MessageKind::Json) {
    const std::size_t index = GetStreamIndex(message->kind);
    if (IsInit(message->kind)) {
      m_initRead[index] = message;
    } else {
      m_lastRead[index] = message->number;
    }
  }
  return message;
}

bool LiveViewer::HasEnded() const {
  const std::lock_guard lock(m_mutex);
  return m_hasEnded;
}

void LiveViewer::Close() {
  End();
}

std::size_t LiveViewer::GetUnreadBytes() const {
  const std::lock_guard lock(m_mutex);
  return m_bytes;
}

std::uint64_t LiveViewer::GetGaps() const {
  const std::lock_guard lock(m_mutex);
  return m_gaps;
}

void LiveViewer::Push(const MessagePtr& message, Clock::time_point now) {
  const std::lock_guard lock(m_mutex);
  if (m_isBehind || m_hasEnded) return;
  const bool isLate = !m_queue.empty() && now - m_queue.front().since > LongestUnread;
  if (isLate || m_bytes + message->bytes.size() > MostUnreadBytes) {
    DropLocked();
    return;
  }
  if (message->kind != MessageKind::Json && !IsInit(message->kind)) {
    bool& awaitsKey = m_awaitsKey[GetStreamIndex(message->kind)];
    awaitsKey = awaitsKey && !message->isKeyFrame;
    if (awaitsKey) return;
  }
  GiveLocked(message, now);
}

void LiveViewer::DropLocked() {
  m_queue.clear();
  m_bytes = 0;
  m_isBehind = true;
  ++m_gaps;
}

void LiveViewer::GiveLocked(const MessagePtr& message, Clock::time_point now) {
  m_queue.push_back({message, now});
  m_bytes += message->bytes.size();
  m_changed.notify_all();
}

void LiveViewer::BeginAnew() {
  const std::lock_guard lock(m_mutex);
  m_isBehind = false;
}

void LiveViewer::Give(const MessagePtr& message, Clock::time_point now) {
  const std::lock_guard lock(m_mutex);
  GiveLocked(message, now);
}

void LiveViewer::GiveInit(std::size_t index, const MessagePtr& init, Clock::time_point now) {
  const std::lock_guard lock(m_mutex);
  if (m_initRead[index] != init) GiveLocked(init, now);
}

void LiveViewer::AwaitKey(std::size_t index, bool awaits) {
  const std::lock_guard lock(m_mutex);
  m_awaitsKey[index] = awaits;
}

bool LiveViewer::HasBegun(std::size_t index) const {
  const std::lock_guard lock(m_mutex);
  return m_lastRead[index].has_value();
}

std::uint64_t LiveViewer::GetWanted(std::size_t index) const {
  const std::lock_guard lock(m_mutex);
  return m_lastRead[index].value_or(static_cast<std::uint64_t>(-1)) + 1;
}

void LiveViewer::End() {
  const std::lock_guard lock(m_mutex);
  m_hasEnded = true;
  m_changed.notify_all();
}

}  // namespace Tavi::Web
