// The GPS receiver: reads its text and hands it on epoch by epoch.
#include "Kdevice/GpsDevice/GpsDevice.h"

#include <fmt/format.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Kbase/Klog/Logger.h"
#include "Kbase/Util/Clock.h"
#include "Kdevice/GpsDevice/LogReplay.h"

namespace Kdevice::GpsDevice {
namespace {

using Kbase::Klog::Logger;
using std::chrono::milliseconds;

constexpr const char* Tag = "Kdevice";
constexpr milliseconds RetryPeriod{1000};
/// Between two looks at whether the path leads elsewhere; also the bound of a stop that could not wake the thread.
constexpr milliseconds LongestWait{1000};
constexpr milliseconds SilenceLimit{10000};
/// Some 17 seconds at 9600 bits per second.
constexpr std::uint64_t FruitlessLimit = 16384;

milliseconds Now() {
  return Kbase::Util::IClock::Steady().Now();
}

}  // namespace

GpsDevice::GpsDevice()
    : IThread("GPS", OnFailure::GoOn),
      m_wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      m_splitter([this](const EpochSplitter::Epoch& epoch) {
        m_epochBegin = std::chrono::steady_clock::time_point(epoch.begunAt);
        Deliver(epoch);
      }) {
  if (m_wake.IsValid()) return;
  Logger::GetInstance().Error(Tag, std::string("GPS: stopping takes a second, no eventfd: ") + std::strerror(errno));
}

GpsDevice::~GpsDevice() {
  Stop();
}

void GpsDevice::Prepare(IThreadDelegate*& delegate) {
  m_delegate = delegate;
}

void GpsDevice::Stopping() {
  // Fails only when the counter is full, and then it is readable already.
  if (m_wake.IsValid()) (void)::eventfd_write(m_wake.Get(), 1);
}

void GpsDevice::RunBefore() {
  // A stop from here on has set the request that Listen looks at before it waits.
  eventfd_t stale = 0;
  if (m_wake.IsValid()) (void)::eventfd_read(m_wake.Get(), &stale);
  m_source = path.empty() ? DefaultPath : path;
  m_baud = Receiver::IsStandardRate(baud) ? baud : DefaultBaud;
  m_lost = false;
  m_fruitlessBytes = 0;
  m_toldFruitless = false;
  if (m_baud == baud) return;
  Logger::GetInstance().Error(
      Tag, fmt::format("GPS {}: {} bits per second is no standard rate, using {}", m_source, baud, m_baud));
}

void GpsDevice::Run() {
  if (!m_receiver.Open(m_source, m_baud)) {
    Lose(m_receiver.GetReason());
  } else if (m_receiver.GetKind() == Receiver::Kind::File) {
    Replay();
  } else {
    const std::string reason = Listen();
    m_splitter.Flush();
    // The next writer may be there already; the descriptor stays open until the next one is.
    if (m_receiver.GetKind() == Receiver::Kind::Fifo) return;
    Lose(reason);
  }
  m_receiver.Close();
  WaitForCancel(RetryPeriod);
}

/// Returns why it ended: the source has gone or leads elsewhere; empty when the thread is to end.
std::string GpsDevice::Listen() {
  milliseconds lastData = Now();
  milliseconds lastLook = lastData;
  while (!IsCancelled()) {
    const auto needed = m_splitter.GetNeededPause();
    const milliseconds timeout = needed ? *needed - (Now() - lastData) : LongestWait;
    const auto event = m_receiver.Wait(m_wake.Get(), std::clamp(timeout, milliseconds(1), LongestWait));
    if (event == Receiver::Event::Gone) return m_receiver.GetReason();
    const milliseconds now = Now();
    if (event == Receiver::Event::Data) {
      Hear(now);
      lastData = lastLook = now;
      continue;
    }
    Rest(now - lastData);
    if (now - lastLook < LongestWait) continue;
    lastLook = now;
    if (m_receiver.IsReplaced()) return "has been replaced";
  }
  return {};
}

void GpsDevice::Hear(milliseconds now) {
  if (m_lost) Logger::GetInstance().Info(Tag, "GPS " + m_source + ": sends again");
  m_lost = false;
  m_fruitlessBytes += m_receiver.GetBytes().size();
  m_splitter.Feed(m_receiver.GetBytes(), now);
  if (m_fruitlessBytes < FruitlessLimit || m_toldFruitless) return;
  m_toldFruitless = true;
  Logger::GetInstance().Warning(Tag, fmt::format("GPS {}: no RMC sentence in {} bytes; is the rate really {}?",
                                                 m_source, m_fruitlessBytes, m_baud));
}

void GpsDevice::Rest(milliseconds quiet) {
  m_splitter.Pause(quiet);
  if (quiet >= SilenceLimit) Lose("has been silent for 10 s");
}

void GpsDevice::Lose(const std::string& reason) {
  if (m_lost || IsCancelled()) return;
  m_lost = true;
  Logger::GetInstance().Warning(Tag, "GPS " + m_source + ": " + reason + "; waiting for it");
}

void GpsDevice::Replay() {
  m_epochBegin.reset();
  LogReplay replay(
      Kbase::Util::IClock::Steady(), replaySpeed, [this](milliseconds duration) { return WaitForCancel(duration); },
      [this](const EpochSplitter::Epoch& epoch) { Deliver(epoch); });
  const bool read = replay.Play(m_receiver.GetFd());
  const std::string result = read ? std::string("ended") : std::string("broke off: ") + std::strerror(errno);
  ReportLosses(replay.GetLosses());
  if (IsCancelled()) return;
  const auto level = read && replay.GetCount() > 0 ? Kbase::Klog::Level::Info : Kbase::Klog::Level::Warning;
  Logger::GetInstance().Log(level, Tag,
                            fmt::format("GPS {}: the log {} after {} epochs", m_source, result, replay.GetCount()));
  while (!WaitForCancel(std::chrono::hours(1))) {
  }
}

void GpsDevice::Deliver(const EpochSplitter::Epoch& epoch) {
  m_fruitlessBytes = 0;
  m_toldFruitless = false;
  if (m_delegate != nullptr && !IsCancelled()) m_delegate->Invoke(this, epoch.text);
}

void GpsDevice::RunAfter() {
  m_splitter.Flush();
  m_receiver.Close();
  ReportLosses(m_splitter.GetLosses());
  if (m_delegate != nullptr) m_delegate->InvokeStop(this);
}

void GpsDevice::ReportLosses(const EpochSplitter::Losses& losses) {
  if (losses.damaged + losses.cutLines + losses.overflow + losses.withoutRmc + losses.late == 0) return;
  Logger::GetInstance().Info(
      Tag, fmt::format("GPS {}: sentences damaged {}, cut {}, beyond an epoch's size {}, without an RMC {}, late {}",
                       m_source, losses.damaged, losses.cutLines, losses.overflow, losses.withoutRmc, losses.late));
}

}  // namespace Kdevice::GpsDevice
