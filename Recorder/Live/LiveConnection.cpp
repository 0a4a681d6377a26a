// One client of the live stream.
#include "Recorder/Live/LiveConnection.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "Tavi/PipelineCollect/RingTime.h"

namespace Tavi::Recorder::Live {

using Pipeline::PipelineType;

LiveConnection::LiveConnection(Ksystem::FileUtils::UniqueFd socket, const std::vector<PipelineType>& streams,
                               std::shared_ptr<void> place, const LiveLimits& limits, TimePoint now)
    : m_socket(std::move(socket)), m_place(std::move(place)), m_limits(limits), m_progress(now) {
  for (const PipelineType type : streams) m_streams.push_back({type, RingCursor(limits.lag)});
}

short LiveConnection::GetEvents() const {
  short events = 0;
  if (!m_inputEnded) events |= POLLIN;
  if (!m_outgoing->IsEmpty()) events |= POLLOUT;
  return events;
}

void LiveConnection::HandleEvents(short seen) {
  if ((seen & (POLLHUP | POLLERR)) != 0) m_isOver = true;
  if ((seen & POLLIN) == 0 || m_isOver) return;
  char byte = 0;
  const ssize_t size = ::recv(m_socket.Get(), &byte, sizeof(byte), MSG_DONTWAIT);
  if (size > 0) CutOff("it has sent something behind its request");
  if (size == 0) m_inputEnded = true;
  if (size < 0 && errno != EAGAIN && errno != EINTR) m_isOver = true;
}

void LiveConnection::Serve(const GetRing& getRing, TimePoint now) {
  while (!m_isOver) {
    if (m_outgoing->IsEmpty()) LoadOldest(getRing);
    if (m_outgoing->IsEmpty()) {
      m_progress = now;
      return;
    }
    if (!Flush(now)) return;
  }
}

/// The oldest of what comes next in each stream, so that they keep together. An entry that is of no use is passed over.
void LiveConnection::LoadOldest(const GetRing& getRing) {
  while (m_outgoing->IsEmpty()) {
    std::size_t oldest = m_streams.size();
    RingCursor::Entry entry;
    for (std::size_t i = 0; i < m_streams.size(); ++i) {
      auto next = m_streams[i].cursor.Peek(getRing(m_streams[i].type));
      if (!next) continue;
      if (entry && PipelineCollect::GetMadeAt(entry.get()) <= PipelineCollect::GetMadeAt(next.get())) continue;
      entry = std::move(next);
      oldest = i;
    }
    if (!entry) return;
    auto& [type, cursor] = m_streams[oldest];
    const bool isUsable = m_outgoing->Load(entry, type, static_cast<std::uint8_t>(oldest), cursor.IsAfterGap());
    cursor.Advance();
    if (isUsable) return;
    cursor.NoteGap();
    ++m_unusable;
  }
}

/// True when all of it is written.
bool LiveConnection::Flush(TimePoint now) {
  std::size_t sentBytes = 0;
  const auto sent = m_outgoing->Send(m_socket.Get(), sentBytes);
  if (sentBytes > 0) m_progress = now;
  if (sent == OutgoingRecord::Sent::Failed) m_isOver = true;
  if (sent == OutgoingRecord::Sent::Part && now - m_progress >= m_limits.stall) CutOff("it takes nothing");
  return sent == OutgoingRecord::Sent::All;
}

std::uint64_t LiveConnection::TakeDropped() {
  std::uint64_t dropped = std::exchange(m_unusable, 0U);
  for (auto& stream : m_streams) dropped += stream.cursor.TakeDropped();
  return dropped;
}

void LiveConnection::CutOff(const std::string& reason) {
  m_isOver = true;
  m_fault = reason;
}

}  // namespace Tavi::Recorder::Live
