// How the kernel schedules a pipeline's threads.
#include "Tavi/GstUtil/StreamThreads.h"

#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <vector>

#include "Kbase/Util/EntryGuard.h"
#include "Tavi/GstUtil/GstRef.h"
#include "Tavi/GstUtil/Log.h"

namespace Tavi::GstUtil {
namespace {

/// Changes a thread's policy if it is the one before.
bool ChangePolicy(pid_t thread, int before, int after) {
  const sched_param param{};
  return sched_getscheduler(thread) == before && sched_setscheduler(thread, after, &param) == 0;
}

}  // namespace

class StreamThreads::Threads {
 public:
  /// On the thread that begins.
  void Enter() {
    const std::lock_guard lock(m_mutex);
    if (m_isHurried) return;
    m_guard.Run([this] {
      m_threads.reserve(m_threads.size() + 1);
      const pid_t thread = gettid();
      if (ChangePolicy(thread, SCHED_OTHER, SCHED_BATCH)) m_threads.push_back(thread);
    });
  }
  /// On the thread that ends; GStreamer gives it to others afterwards.
  void Leave() {
    const std::lock_guard lock(m_mutex);
    if (std::erase(m_threads, gettid()) > 0) ChangePolicy(gettid(), SCHED_BATCH, SCHED_OTHER);
  }
  void Hurry() {
    const std::lock_guard lock(m_mutex);
    m_isHurried = true;
    for (const pid_t thread : m_threads) ChangePolicy(thread, SCHED_BATCH, SCHED_OTHER);
    m_threads.clear();
  }

  /// What a bus has of it.
  struct Shared {
    std::shared_ptr<Threads> threads;
    /// Asked first, which orders a thread after the one that made all this.
    std::atomic<bool> isReady{false};
  };
  static GstBusSyncReply Note(GstBus* /*bus*/, GstMessage* message, gpointer user) noexcept {
    if (GST_MESSAGE_TYPE(message) != GST_MESSAGE_STREAM_STATUS) return GST_BUS_PASS;
    GstStreamStatusType type = GST_STREAM_STATUS_TYPE_CREATE;
    GstElement* owner = nullptr;
    gst_message_parse_stream_status(message, &type, &owner);
    if (GST_OBJECT_FLAG_IS_SET(owner, GST_ELEMENT_FLAG_SOURCE)) return GST_BUS_PASS;
    auto* shared = static_cast<Shared*>(user);
    if (!shared->isReady.load(std::memory_order_acquire)) return GST_BUS_PASS;
    if (type == GST_STREAM_STATUS_TYPE_ENTER) shared->threads->Enter();
    if (type == GST_STREAM_STATUS_TYPE_LEAVE) shared->threads->Leave();
    return GST_BUS_PASS;
  }

 private:
  /// Also keeps a thread from ending while another one changes its policy.
  std::mutex m_mutex;
  bool m_isHurried = false;
  std::vector<pid_t> m_threads;
  Kbase::Util::EntryGuard m_guard{Log::Tag, "a queue's thread is scheduled as all others"};
};

StreamThreads::StreamThreads() : m_threads(std::make_shared<Threads>()) {}

StreamThreads::~StreamThreads() = default;

void StreamThreads::Attach(GstElement* pipeline) {
  const auto bus = GstRef<GstBus>::Adopt(gst_element_get_bus(pipeline));
  auto shared = std::make_unique<Threads::Shared>();
  shared->threads = m_threads;
  shared->isReady.store(true, std::memory_order_release);
  gst_bus_set_sync_handler(bus.Get(), Threads::Note, shared.release(),
                           [](gpointer user) { delete static_cast<Threads::Shared*>(user); });
}

void StreamThreads::Hurry() {
  m_threads->Hurry();
}

}  // namespace Tavi::GstUtil
