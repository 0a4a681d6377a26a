// The thread class that everything with a thread of its own derives from.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "Kbase/Util/EntryGuard.h"

namespace Kbase::Interfaces {

/// Owns one named thread. The thread calls RunBefore() once, Run() again and again until it is cancelled, then
/// RunAfter(). An exception in one of them is a line in the log and ends the thread early, unless it says otherwise.
///
/// Start, Stop, Cancel, Abort and IsRunning are thread-safe. A class that overrides Run must call Stop() in its own
/// destructor, while its overrides still exist. After its end a thread can be started again. Nothing is ever killed:
/// cancelling is a request that Run honours, and Stopping() is where a subclass wakes whatever its Run waits for.
class IThread {
 public:
  using Milliseconds = std::chrono::milliseconds;

  /// Who receives what a device thread produces.
  class IThreadDelegate {
   public:
    virtual ~IThreadDelegate() = default;
    /// Called on `thread` with its product; `data` is the thread's own and borrowed for the call.
    virtual void Invoke(IThread* thread, void* data) = 0;
    /// Called on `thread` after its last Invoke.
    virtual void InvokeStop(IThread* /*thread*/) {}
  };

  /// What an exception in Run ends: a thread that does one thing, or one pass of a thread that serves.
  enum class OnFailure { EndThread, GoOn };

  /// `name` is what the kernel shows (pthread_setname_np cuts it to 15 characters).
  explicit IThread(std::string name, OnFailure onFailure = OnFailure::EndThread);
  virtual ~IThread();

  /// Starts the thread. False, and nothing happens, while it is running or when the system has no thread to give.
  bool Start();
  /// Cancels and waits for the thread's end, however long that takes. From the thread itself it only cancels.
  void Stop();
  /// Requests the end: sets the request, calls Stopping() and wakes WaitForCancel.
  void Cancel();
  /// Waits for the thread's own end without asking for it. Not from the thread itself.
  void Wait();
  /// Cancels and waits for the thread's end up to `bound`; false when it still runs then.
  bool Abort(Milliseconds bound = Milliseconds(2000));
  /// True from Start until the thread has left RunAfter.
  [[nodiscard]] bool IsRunning() const;

  IThread(const IThread&) = delete;
  IThread& operator=(const IThread&) = delete;

 protected:
  virtual void RunBefore() {}
  virtual void Run() = 0;
  virtual void RunAfter() {}
  /// Called by whoever cancels, on that caller's thread.
  virtual void Stopping() {}

  [[nodiscard]] bool IsCancelled() const { return m_cancelled.load(std::memory_order_acquire); }
  /// Sleeps on the thread itself for `duration`, or until cancelled or woken by Wake; true when cancelled.
  bool WaitForCancel(Milliseconds duration);
  /// Cuts the present WaitForCancel short, or the next one when none is under way.
  void Wake();

 private:
  void Body() noexcept;
  bool RunPass() noexcept;
  void JoinEnded();

  const std::string m_name;
  const OnFailure m_onFailure;
  Util::EntryGuard m_guard;
  std::atomic<bool> m_cancelled{false};
  /// Guards the members below; never held while a virtual operation runs.
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  std::thread m_thread;
  bool m_running = false;
  bool m_woken = false;
};

}  // namespace Kbase::Interfaces
