// Turns the signals that end the recorder into calls on an ordinary thread.
#pragma once

#include <csignal>
#include <functional>

#include "Kbase/Interfaces/IThread.h"

namespace Tavi::Recorder {

/// Calls `handler` with the signal on its own thread "SIGNALS" when SIGINT, SIGTERM or SIGPWR comes, and again every 50
/// ms until it is destroyed: who could not obey the first time, between two events, does so in the next one. Power that
/// fails comes before an interrupt. SIGHUP is ignored, with a line in the log. Construct it before any other thread
/// exists: it blocks the signals in the calling thread, and threads inherit that.
class SignalThread final : public Kbase::Interfaces::IThread {
 public:
  explicit SignalThread(std::function<void(int)> handler);
  ~SignalThread() override;

 protected:
  void Run() override;

 private:
  const std::function<void(int)> m_handler;
  sigset_t m_signals;
  int m_pending = 0;
};

}  // namespace Tavi::Recorder
