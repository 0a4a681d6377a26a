// The thread class that everything with a thread of its own derives from.
#include "Kbase/Interfaces/IThread.h"

#include <pthread.h>

#include <cassert>
#include <system_error>
#include <utility>

#include "Kbase/Klog/Logger.h"

namespace Kbase::Interfaces {
namespace {

constexpr std::size_t KernelNameLength = 15;
constexpr IThread::Milliseconds FailurePause{100};

}  // namespace

IThread::IThread(std::string name, OnFailure onFailure)
    : m_name(std::move(name)),
      m_onFailure(onFailure),
      m_guard("Kbase",
              "the thread " + m_name + (onFailure == OnFailure::GoOn ? " failed and goes on" : " ended early")) {}

IThread::~IThread() {
  assert(!IsRunning() && "a subclass stops its thread in its own destructor");
  Stop();
}

bool IThread::Start() {
  const std::lock_guard lock(m_mutex);
  if (m_running) return false;
  if (m_thread.joinable()) m_thread.join();
  m_cancelled.store(false, std::memory_order_release);
  m_woken = false;
  m_running = true;
  try {
    m_thread = std::thread([this] { Body(); });
  } catch (const std::system_error& error) {
    m_running = false;
    Klog::Logger::GetInstance().Error("Kbase", "cannot start the thread " + m_name + ": " + error.what());
  }
  return m_running;
}

void IThread::Body() noexcept {
  pthread_setname_np(pthread_self(), m_name.substr(0, KernelNameLength).c_str());
  bool isFit = m_guard.Run([this] { RunBefore(); });
  while (isFit && !IsCancelled()) isFit = RunPass();
  if (isFit) m_guard.Run([this] { RunAfter(); });
  // Notified under the lock: once it is released the owner may destroy this object.
  const std::lock_guard lock(m_mutex);
  m_running = false;
  m_changed.notify_all();
}

/// False when the thread is to end. What made a pass fail may make the next one fail as well: it is not called at once.
bool IThread::RunPass() noexcept {
  if (m_guard.Run([this] { Run(); })) return true;
  if (m_onFailure == OnFailure::EndThread) return false;
  WaitForCancel(FailurePause);
  return true;
}

void IThread::Cancel() {
  m_cancelled.store(true, std::memory_order_release);
  Stopping();
  Wake();
}

void IThread::Wake() {
  const std::lock_guard lock(m_mutex);
  m_woken = true;
  m_changed.notify_all();
}

void IThread::JoinEnded() {
  const std::lock_guard lock(m_mutex);
  if (!m_running && m_thread.joinable()) m_thread.join();
}

void IThread::Stop() {
  {
    const std::lock_guard lock(m_mutex);
    if (m_thread.get_id() == std::this_thread::get_id()) {
      m_cancelled.store(true, std::memory_order_release);
      return;
    }
  }
  if (IsRunning()) {
    Cancel();
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return !m_running; });
  }
  JoinEnded();
}

void IThread::Wait() {
  {
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return !m_running; });
  }
  JoinEnded();
}

bool IThread::Abort(Milliseconds bound) {
  Cancel();
  {
    std::unique_lock lock(m_mutex);
    if (!m_changed.wait_for(lock, bound, [this] { return !m_running; })) return false;
  }
  JoinEnded();
  return true;
}

bool IThread::IsRunning() const {
  const std::lock_guard lock(m_mutex);
  return m_running;
}

bool IThread::WaitForCancel(Milliseconds duration) {
  std::unique_lock lock(m_mutex);
  m_changed.wait_for(lock, duration, [this] { return m_woken || IsCancelled(); });
  m_woken = false;
  return IsCancelled();
}

}  // namespace Kbase::Interfaces
