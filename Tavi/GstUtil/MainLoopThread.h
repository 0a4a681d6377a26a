// The detached thread "PIPELINE" that runs a GLib main loop.
#pragma once

#include <glib.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

namespace Tavi::Pipeline {

/// Runs one main loop and tells when that has ended. Thread-safe.
class MainLoopThread {
 public:
  /// Starts a detached thread that runs `loop` (it takes a reference of its own). Null when the system has no thread.
  static std::shared_ptr<MainLoopThread> Run(GMainLoop* loop);

  /// Ends the loop, also when the thread has not come to run it yet, and waits until the thread is done with it. Called
  /// on the thread itself (a bus handler that stops the manager) it only quits the loop.
  void Quit();
  /// The loop has been quit, by whomever.
  [[nodiscard]] bool HasEnded();

 private:
  explicit MainLoopThread(GMainLoop* loop) : m_loop(loop) {}
  void Body(GMainLoop* loop) noexcept;

  GMainLoop* const m_loop;
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_ended = false;
  std::thread::id m_id;
};

}  // namespace Tavi::Pipeline
