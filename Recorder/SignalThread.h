// Turns SIGINT and SIGTERM into a call on an ordinary thread.
#pragma once

#include <csignal>
#include <functional>

#include "Kbase/Interfaces/IThread.h"

namespace Tavi::Recorder {

/// Calls `handler` on its own thread "SIGNALS" for each SIGINT or SIGTERM. Construct it before any other thread exists:
/// it blocks the two signals in the calling thread, and threads inherit that.
class SignalThread final : public Kbase::Interfaces::IThread {
 public:
  explicit SignalThread(std::function<void()> handler);
  ~SignalThread() override;

 protected:
  void Run() override;

 private:
  const std::function<void()> m_handler;
  sigset_t m_signals;
};

}  // namespace Tavi::Recorder
