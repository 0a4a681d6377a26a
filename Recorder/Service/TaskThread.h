// A thread for what waits for disks.
#pragma once

#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <utility>

#include "Kbase/Interfaces/IThread.h"

namespace Tavi::Recorder {

/// Runs tasks one after another, in their order, on a thread of its own. What was posted before Finish, or before the
/// destruction, is still done; what comes later is not. Thread-safe.
class TaskThread final : public Kbase::Interfaces::IThread {
 public:
  using Task = std::function<void()>;

  explicit TaskThread(std::string name) : IThread(std::move(name)) {}
  ~TaskThread() override { Finish(); }

  void Post(Task task) {
    {
      const std::lock_guard lock(m_mutex);
      m_tasks.push_back(std::move(task));
    }
    Wake();
  }
  /// Waits until all tasks are done, and ends.
  void Finish() { Stop(); }

 protected:
  void Run() override {
    RunTasks();
    WaitForCancel(Nap);
  }
  void RunAfter() override { RunTasks(); }

 private:
  static constexpr Milliseconds Nap{1000};

  void RunTasks() {
    for (;;) {
      Task task;
      {
        const std::lock_guard lock(m_mutex);
        if (m_tasks.empty()) return;
        task = std::move(m_tasks.front());
        m_tasks.pop_front();
      }
      task();
    }
  }

  std::mutex m_mutex;
  std::deque<Task> m_tasks;
};

}  // namespace Tavi::Recorder
