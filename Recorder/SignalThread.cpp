// Turns the signals that end the recorder into calls on an ordinary thread.
#include "Recorder/SignalThread.h"

#include <ctime>
#include <utility>

#include "Tavi/GstUtil/Log.h"

namespace Tavi::Recorder {
namespace {

/// How soon the thread notices that it is to end, and how often it calls.
constexpr std::timespec PollPeriod{0, 50'000'000};

}  // namespace

SignalThread::SignalThread(std::function<void(int)> handler) : IThread("SIGNALS"), m_handler(std::move(handler)) {
  sigemptyset(&m_signals);
  sigaddset(&m_signals, SIGINT);
  sigaddset(&m_signals, SIGTERM);
  sigaddset(&m_signals, SIGPWR);
  sigaddset(&m_signals, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &m_signals, nullptr);
  Start();
}

SignalThread::~SignalThread() {
  Stop();
}

void SignalThread::Run() {
  const int signal = sigtimedwait(&m_signals, nullptr, &PollPeriod);
  if (signal == SIGHUP) {
    Log::Warning("SIGHUP is ignored: new settings need a restart");
  } else if (signal > 0 && m_pending != SIGPWR) {
    m_pending = signal;
  }
  if (m_pending != 0) m_handler(m_pending);
}

}  // namespace Tavi::Recorder
