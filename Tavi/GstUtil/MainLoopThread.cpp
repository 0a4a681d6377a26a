// The detached thread "PIPELINE" that runs a GLib main loop.
#include "Tavi/GstUtil/MainLoopThread.h"

#include <pthread.h>

#include <system_error>

#include "Tavi/GstUtil/Log.h"

namespace Tavi::Pipeline {
namespace {

gboolean QuitLoop(gpointer loop) noexcept {
  g_main_loop_quit(static_cast<GMainLoop*>(loop));
  return G_SOURCE_CONTINUE;
}

}  // namespace

std::shared_ptr<MainLoopThread> MainLoopThread::Run(GMainLoop* loop) {
  std::shared_ptr<MainLoopThread> self(new MainLoopThread(loop));
  try {
    const std::lock_guard lock(self->m_mutex);
    std::thread thread([self, owned = g_main_loop_ref(loop)] {
      self->Body(owned);
      g_main_loop_unref(owned);
    });
    self->m_id = thread.get_id();
    thread.detach();
  } catch (const std::system_error& error) {
    g_main_loop_unref(loop);
    Log::Error(std::string("cannot start the main loop's thread: ") + error.what());
    return nullptr;
  }
  return self;
}

void MainLoopThread::Body(GMainLoop* loop) noexcept {
  pthread_setname_np(pthread_self(), "PIPELINE");
  g_main_loop_run(loop);
  const std::lock_guard lock(m_mutex);
  m_ended = true;
  m_changed.notify_all();
}

bool MainLoopThread::HasEnded() {
  const std::lock_guard lock(m_mutex);
  return m_ended;
}

void MainLoopThread::Quit() {
  g_main_loop_quit(m_loop);
  std::unique_lock lock(m_mutex);
  if (m_id == std::this_thread::get_id()) return;
  // A quit that comes before the thread runs the loop is forgotten by it; one that the loop itself dispatches is not.
  GSource* quit = g_idle_source_new();
  g_source_set_callback(quit, QuitLoop, m_loop, nullptr);
  g_source_attach(quit, g_main_loop_get_context(m_loop));
  m_changed.wait(lock, [this] { return m_ended; });
  g_source_destroy(quit);
  g_source_unref(quit);
}

}  // namespace Tavi::Pipeline
