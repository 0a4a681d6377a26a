// The simulated GPS receiver.
#include "Simulator/GpsSimulator.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "Kbase/Klog/Logger.h"
#include "Simulator/NmeaText.h"

namespace Tavi::Simulator {
namespace {

using Ksystem::FileUtils::UniqueFd;

std::int64_t WallMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace

GpsSimulator::GpsSimulator(const Drive& drive, const DriveClock& clock, int rate)
    : IThread("SIM-GPS", OnFailure::GoOn), m_drive(drive), m_clock(clock), m_rate(std::clamp(rate, 1, 10)) {
  if (OpenTerminal()) return;
  m_problem = "no pseudo-terminal for the simulated GPS receiver: " + std::string(std::strerror(errno));
  m_path.clear();
}

GpsSimulator::~GpsSimulator() {
  Stop();
}

/// False with errno set.
bool GpsSimulator::OpenTerminal() {
  m_master = UniqueFd::Open("/dev/ptmx", O_RDWR | O_NOCTTY | O_NONBLOCK);
  char name[64] = {};
  if (!m_master.IsValid() || grantpt(m_master.Get()) != 0 || unlockpt(m_master.Get()) != 0) return false;
  if (ptsname_r(m_master.Get(), name, sizeof name) != 0) return false;
  m_path = name;
  m_slave = UniqueFd::Open(m_path, O_RDWR | O_NOCTTY | O_NONBLOCK);
  termios settings{};
  if (!m_slave.IsValid() || tcgetattr(m_slave.Get(), &settings) != 0) return false;
  cfmakeraw(&settings);
  cfsetspeed(&settings, B9600);
  return tcsetattr(m_slave.Get(), TCSANOW, &settings) == 0;
}

std::int64_t GpsSimulator::DueEpoch() const {
  return (WallMs() - SendDelayMs) * m_rate / 1000;
}

void GpsSimulator::RunBefore() {
  m_lastEpoch = DueEpoch();
}

/// Goes by the wall clock anew each time: where it was set, the receiver sends the new time, as a real one would.
void GpsSimulator::Run() {
  const std::int64_t epoch = DueEpoch();
  if (epoch != m_lastEpoch) Send(epoch);
  m_lastEpoch = epoch;
  const std::int64_t nextMs = ((epoch + 1) * 1000 + m_rate - 1) / m_rate + SendDelayMs;
  // No longer than a second, so that a clock that was set back is noticed.
  WaitForCancel(Milliseconds(std::clamp<std::int64_t>(nextMs - WallMs(), 1, 1000)));
}

void GpsSimulator::Send(std::int64_t epoch) {
  if (!m_slave.IsValid()) return;
  const std::int64_t utcMs = epoch * 1000 / m_rate;
  const double seconds = static_cast<double>(m_clock.NowNs()) / 1e9 - static_cast<double>(WallMs() - utcMs) / 1e3;
  const std::string text = BuildNmeaEpoch(m_drive.At(seconds), utcMs);
  // Nobody has taken the epoch before: a port that nobody reads keeps nothing.
  int unread = 0;
  if (ioctl(m_slave.Get(), FIONREAD, &unread) == 0 && unread > 0) tcflush(m_slave.Get(), TCIFLUSH);
  // What the reader writes, commands to the receiver, is not answered.
  char ignored[256];
  while (read(m_master.Get(), ignored, sizeof ignored) > 0) {
  }
  // In one call, so that the epoch arrives whole or, with the terminal's buffer full, not at all.
  const bool isSent = write(m_master.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
  if (!isSent && !m_isFailing) {
    Kbase::Klog::Logger::GetInstance().Warning("Simulator",
                                               m_path + " does not take the receiver's text: " + std::strerror(errno));
  }
  m_isFailing = !isSent;
}

}  // namespace Tavi::Simulator
