// The wish to end, as something that can be waited for.
#include "Fleet/Upload/StopSignal.h"

#include <poll.h>
#include <pthread.h>
#include <sys/signalfd.h>

#include <cerrno>
#include <csignal>

namespace Tavi::Upload {
namespace {

sigset_t GetSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  return signals;
}

}  // namespace

StopSignal::StopSignal() {
  const sigset_t signals = GetSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  m_fd = Ksystem::FileUtils::UniqueFd(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

StopSignal::~StopSignal() {
  // What came and was never read would act now.
  const sigset_t signals = GetSignals();
  const timespec none{};
  while (sigtimedwait(&signals, nullptr, &none) > 0) continue;
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

bool StopSignal::WaitFor(std::chrono::milliseconds time) const {
  const auto end = std::chrono::steady_clock::now() + time;
  while (true) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    pollfd wait{m_fd.Get(), POLLIN, 0};
    const int ready = ::poll(&wait, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
    if (ready > 0) return true;
    if (ready == 0 || errno != EINTR) return false;
  }
}

}  // namespace Tavi::Upload
