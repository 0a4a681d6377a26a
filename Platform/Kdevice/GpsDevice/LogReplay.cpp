// Replays a receiver's log at the pace of its own time stamps.
#include "Kdevice/GpsDevice/LogReplay.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace Kdevice::GpsDevice {
namespace {

constexpr std::chrono::milliseconds Day = std::chrono::hours(24);
constexpr std::chrono::milliseconds UsualStep = std::chrono::seconds(1);
constexpr std::chrono::milliseconds LongestStep = std::chrono::seconds(10);

}  // namespace

LogReplay::LogReplay(Kbase::Util::IClock& clock, std::int32_t speed, Wait wait, EpochSplitter::Sink sink)
    : m_clock(clock),
      m_speed(std::max(speed, 1)),
      m_wait(std::move(wait)),
      m_sink(std::move(sink)),
      m_splitter([this](const EpochSplitter::Epoch& epoch) { Present(epoch); }) {}

bool LogReplay::Play(int fd) {
  char buffer[1024];
  m_start = m_clock.Now();
  while (!m_ended) {
    const ssize_t size = ::read(fd, buffer, sizeof buffer);
    if (size < 0 && errno == EINTR) continue;
    const int error = errno;
    if (size > 0) {
      m_splitter.Feed({buffer, static_cast<std::size_t>(size)});
      continue;
    }
    m_splitter.Flush();
    errno = error;
    return size == 0;
  }
  return true;
}

void LogReplay::Present(const EpochSplitter::Epoch& epoch) {
  if (m_ended) return;
  if (m_count > 0) m_played += GetStep(m_previous, epoch.rmcTime);
  m_previous = epoch.rmcTime;
  const Milliseconds due = m_start + m_played / m_speed;
  m_ended = m_wait(std::max(due - m_clock.Now(), Milliseconds(0)));
  if (m_ended) return;
  ++m_count;
  m_sink(epoch);
}

LogReplay::Milliseconds LogReplay::GetStep(Time from, Time to) {
  if (!from || !to) return UsualStep;
  const Milliseconds step = (*to - *from + Day) % Day;
  return step == Milliseconds(0) || step > LongestStep ? UsualStep : step;
}

}  // namespace Kdevice::GpsDevice
