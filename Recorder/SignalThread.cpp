// Turns the signals that end the recorder into calls on an ordinary thread.
#include "Recorder/SignalThread.h"

#include <ctime>
#include <utility>

#include "Kbase/Klog/Logger.h"
#include "Tavi/GstUtil/Log.h"

namespace Tavi::Recorder {
namespace {

/// How soon the thread notices that it is to end: each time costs the unit two changes of threads.
constexpr std::timespec IdlePeriod{0, 250'000'000};
/// The same once a signal is there, and how often it then calls.
constexpr std::timespec PendingPeriod{0, 50'000'000};

sigset_t GetSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGPWR, SIGHUP}) sigaddset(&signals, signal);
  return signals;
}

}  // namespace

SignalThread::SignalThread(std::function<void(int)> handler)
    : IThread("SIGNALS", OnFailure::GoOn), m_handler(std::move(handler)), m_signals(GetSignals()) {
  Start();
}

SignalThread::~SignalThread() {
  Stop();
}

void SignalThread::Block() {
  const sigset_t signals = GetSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

void SignalThread::Run() {
  const int signal = sigtimedwait(&m_signals, nullptr, m_pending == 0 ? &IdlePeriod : &PendingPeriod);
  if (signal == SIGHUP) {
    Kbase::Klog::Logger::GetInstance().ReopenFile();
    Log::Info("the log file is opened anew (SIGHUP); new settings need a restart");
  } else if (signal > 0 && m_pending != SIGPWR) {
    m_pending = signal;
  }
  if (m_pending != 0) m_handler(m_pending);
}

}  // namespace Tavi::Recorder
