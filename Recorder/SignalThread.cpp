// Turns SIGINT and SIGTERM into a call on an ordinary thread.
#include "Recorder/SignalThread.h"

#include <ctime>
#include <utility>

namespace Tavi::Recorder {
namespace {

/// How soon the thread notices that it is to end.
constexpr std::timespec PollPeriod{0, 200'000'000};

}  // namespace

SignalThread::SignalThread(std::function<void()> handler) : IThread("SIGNALS"), m_handler(std::move(handler)) {
  sigemptyset(&m_signals);
  sigaddset(&m_signals, SIGINT);
  sigaddset(&m_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &m_signals, nullptr);
  Start();
}

SignalThread::~SignalThread() {
  Stop();
}

void SignalThread::Run() {
  if (sigtimedwait(&m_signals, nullptr, &PollPeriod) > 0) m_handler();
}

}  // namespace Tavi::Recorder
