// Turns the signals that end the recorder into calls on an ordinary thread.
#pragma once

#include <csignal>
#include <functional>

#include "Kbase/Interfaces/IThread.h"

namespace Tavi::Recorder {

/// Calls `handler` with the signal on its own thread "SIGNALS" when SIGINT, SIGTERM or SIGPWR comes, and again every 50
/// ms until it is destroyed: who could not obey the first time, between two events, does so in the next one. Power that
/// fails comes before an interrupt. SIGHUP has the log file opened anew. The signals must be blocked (Block) since
/// before any other thread was started.
class SignalThread final : public Kbase::Interfaces::IThread {
 public:
  explicit SignalThread(std::function<void(int)> handler);
  ~SignalThread() override;

  /// Keeps these signals, in the calling thread and in those that it starts from now on, for the thread that asks for
  /// them: one thread that does not is enough for a signal to end the process. What comes before there is a
  /// SignalThread waits for it.
  static void Block();

 protected:
  void Run() override;

 private:
  const std::function<void(int)> m_handler;
  const sigset_t m_signals;
  int m_pending = 0;
};

}  // namespace Tavi::Recorder
