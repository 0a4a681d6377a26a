// How the kernel schedules a pipeline's threads.
#pragma once

#include <gst/gst.h>

#include <memory>

namespace Tavi::GstUtil {

/// Has the threads behind the queues of pipelines, as they begin, scheduled as batch work (SCHED_BATCH, sched(7)):
/// woken, they let whoever wakes them come to its end first. Otherwise each is given the processor while the waker
/// still holds the queue that it waits for, twice the changes of threads for nothing. They get no less of a busy
/// processor than others. Threads of sources stay as they are, for what they read does not wait; one that was given
/// another policy keeps it.
///
/// Thread-safe. May end before its pipelines.
class StreamThreads {
 public:
  StreamThreads();
  ~StreamThreads();

  /// Looks after a pipeline that has not been started, and whose bus has no other synchronous handler.
  void Attach(GstElement* pipeline);
  /// From now on they are scheduled as all others: whoever ends the pipelines waits for each of them.
  void Hurry();

  StreamThreads(const StreamThreads&) = delete;
  StreamThreads& operator=(const StreamThreads&) = delete;

 private:
  class Threads;
  std::shared_ptr<Threads> m_threads;
};

}  // namespace Tavi::GstUtil
